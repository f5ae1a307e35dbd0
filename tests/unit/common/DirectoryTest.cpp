#include "common/Directory.h"

#include "common/File.h"
#include "common/PosixError.h"
#include "support/Messages.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <sys/mount.h>

namespace agent {
namespace {

using test::messageOf;
using test::writeFile;

class Directory : public testing::Test {
protected:
    test::TestDirectory directory;
};

TEST_F(Directory, MakesAllMissingParents) {
    dir::make(directory / "a/b/c");
    EXPECT_TRUE(S_ISDIR(file::status(directory / "a/b/c").st_mode));
}

TEST_F(Directory, MakeOfAnExistingDirectoryChangesNothing) {
    writeFile(directory / "file", "x");
    EXPECT_NO_THROW(dir::make(directory.path()));
    EXPECT_EQ(test::readFile(directory / "file"), "x");
}

TEST_F(Directory, MakeTakesATrailingSlash) {
    dir::make((directory / "a/b").str() + "/");
    EXPECT_TRUE(S_ISDIR(file::status(directory / "a/b").st_mode));
}

TEST_F(Directory, MakeOfAnEmptyPathIsRefused) {
    EXPECT_EQ(messageOf<std::invalid_argument>([] { dir::make(""); }), "dir::make directory is empty");
}

TEST_F(Directory, MakeNamesThePartThatFails) {
    const std::string file = directory / "file";
    writeFile(file, "x");
    const std::string notDirectory = ": Not a directory | ERROR(Posix) : 20 (0x14)";
    EXPECT_EQ(messageOf<PosixError>([&] { dir::make(file + "/below"); }),
              "dir::make(\"" + file + "/below\"), makedir(\"" + file + "\") failed" + notDirectory);
    EXPECT_EQ(messageOf<PosixError>([&] { dir::make(file); }),
              "dir::make(\"" + file + "\"), mkdir(\"" + file + "\") failed" + notDirectory);
}

TEST_F(Directory, MakeOnAReadOnlyFileSystemFails) {
    const std::string sealed = directory / "sealed";
    dir::make(sealed);
    ASSERT_EQ(::mount("tmpfs", sealed.c_str(), "tmpfs", MS_RDONLY, nullptr), 0);
    EXPECT_EQ(messageOf<PosixError>([&] { dir::make(sealed + "/a"); }),
              "dir::make(\"" + sealed + "/a\"), mkdir(\"" + sealed +
                  "/a\") failed: Read-only file system | ERROR(Posix) : 30 (0x1e)");
    ASSERT_EQ(::umount(sealed.c_str()), 0);
}

TEST_F(Directory, ListLeavesOutTheDots) {
    writeFile(directory / "one", "");
    writeFile(directory / ".hidden", "");
    dir::make(directory / "two");
    EXPECT_THAT(dir::list(directory.path()), testing::UnorderedElementsAre("one", ".hidden", "two"));
}

TEST_F(Directory, ListOfNothingFails) {
    const std::string none = directory / "none";
    EXPECT_EQ(messageOf<PosixError>([&] { (void)dir::list(none); }),
              "opendir(\"" + none + "\") failed: No such file or directory | ERROR(Posix) : 2 (0x2)");
}

TEST_F(Directory, RemovesDepthFirst) {
    dir::make(directory / "tree/a/b");
    writeFile(directory / "tree/a/b/file", "x");
    writeFile(directory / "tree/file", "x");
    dir::remove(directory / "tree");
    EXPECT_FALSE(file::exists(directory / "tree"));
}

TEST_F(Directory, RemoveDoesNotFollowLinks) {
    dir::make(directory / "kept");
    writeFile(directory / "kept/file", "x");
    dir::make(directory / "tree");
    ASSERT_EQ(::symlink((directory / "kept").str().c_str(), (directory / "tree/link").str().c_str()), 0);
    dir::remove(directory / "tree");
    EXPECT_EQ(test::readFile(directory / "kept/file"), "x");
}

TEST_F(Directory, RemoveOfWhatIsNoDirectoryIsRefused) {
    const std::string file = directory / "file";
    writeFile(file, "x");
    const std::string refusal = " - not a directory: Not a directory | ERROR(Posix) : 20 (0x14)";
    EXPECT_EQ(messageOf<PosixError>([&] { dir::remove(file); }),
              "Failed to remove \"" + file + "\"" + refusal);
    EXPECT_TRUE(file::exists(file));

    dir::make(directory / "kept");
    const std::string link = directory / "link";
    ASSERT_EQ(::symlink((directory / "kept").str().c_str(), link.c_str()), 0);
    EXPECT_EQ(messageOf<PosixError>([&] { dir::remove(link); }),
              "Failed to remove \"" + link + "\"" + refusal);
    EXPECT_TRUE(file::exists(directory / "kept"));
}

TEST_F(Directory, RemoveOfNothingFails) {
    const std::string none = directory / "none";
    EXPECT_EQ(messageOf<PosixError>([&] { dir::remove(none); }),
              "dir::remove (\"" + none + "\") failed: No such file or directory | ERROR(Posix) : 2 (0x2)");
}

TEST_F(Directory, RemoveStopsAtAMount) {
    dir::make(directory / "tree/mounted");
    const std::string mounted = directory / "tree/mounted";
    ASSERT_EQ(::mount("tmpfs", mounted.c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_THROW(dir::remove(directory / "tree"), PosixError);
    ASSERT_EQ(::umount(mounted.c_str()), 0);
}

} // namespace
} // namespace agent
