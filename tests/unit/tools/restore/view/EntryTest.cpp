#include "tools/restore/view/Entry.h"

#include "os/FileDescriptor.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <stdexcept>

namespace restore::view {
namespace {

TEST(Entry, ModesAreShownAsLsDoes) {
    EXPECT_EQ(modeText(S_IFREG | 0644), "-rw-r--r--");
    EXPECT_EQ(modeText(S_IFDIR | 01777), "drwxrwxrwt");
    EXPECT_EQ(modeText(S_IFREG | 04751), "-rwsr-x--x");
    EXPECT_EQ(modeText(S_IFREG | 02640), "-rw-r-S---");
    EXPECT_EQ(modeText(S_IFLNK | 0777), "lrwxrwxrwx");
    EXPECT_EQ(modeText(S_IFBLK | 0660), "brw-rw----");
}

TEST(Entry, NamesStayOnTheirLine) {
    EXPECT_EQ(escaped("two words \xc3\xbc"), "two words \xc3\xbc");
    EXPECT_EQ(escaped("a\nb\\c\x07\x7f"), "a\\nb\\\\c\\007\\177");
}

TEST(Entry, TheDriversFilesAreKnown) {
    EXPECT_TRUE(isDriverFile(".tolvu"));
    EXPECT_TRUE(isDriverFile(".tolvu1"));
    EXPECT_TRUE(isDriverFile(".tolvu.inc"));
    EXPECT_FALSE(isDriverFile(".tolv"));
    EXPECT_FALSE(isDriverFile("a.tolvu"));
}

TEST(Entry, EntriesAreInOrder) {
    const agent::test::TestDirectory directory;
    agent::test::writeFile(directory / "b", "12");
    std::filesystem::create_symlink("elsewhere", (directory / "a").str());
    const os::FileDescriptor open(::open(directory.path().str().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::vector<Entry> found = entriesOf(open.get());
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].name, "a");
    EXPECT_EQ(found[0].target, "elsewhere");
    EXPECT_EQ(found[1].status.st_size, 2);
    EXPECT_EQ(entryOf(open.get(), "b").status.st_ino, found[1].status.st_ino);
    EXPECT_THROW(entryOf(open.get(), "c"), std::runtime_error);
}

} // namespace
} // namespace restore::view
