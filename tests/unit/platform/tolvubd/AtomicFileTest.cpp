#include "AtomicFile.h"

#include "ExpectedError.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <sys/stat.h>

namespace tolvubd {
namespace {

constexpr unsigned mode = 0640;
constexpr std::size_t limit = 100;

class AtomicFile : public ::testing::Test {
protected:
    [[nodiscard]] const std::string& path() const { return file; }
    [[nodiscard]] std::string content() const { return readFile(file, limit); }

private:
    agent::test::TestDirectory directory;
    std::string file = (directory / "file").str();
};

TEST_F(AtomicFile, HasTheTextAndTheModeAskedFor) {
    replaceFileDurably(path(), "one", mode);
    struct stat status{};
    ASSERT_EQ(::stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, mode);
    EXPECT_EQ(content(), "one");
    replaceFileWithoutSync(path(), "two", mode);
    EXPECT_EQ(content(), "two");
}

TEST_F(AtomicFile, CanBeTakenBackOnce) {
    replaceFileDurably(path(), "one", mode);
    replaceFileDurably(path(), "two", mode);
    restorePreviousFile(path());
    EXPECT_EQ(content(), "one");
    replaceFileDurably(path(), "three", mode);
    EXPECT_EQ(content(), "three");
}

TEST_F(AtomicFile, IsGoneWhenTheFirstIsTakenBack) {
    replaceFileDurably(path(), "one", mode);
    restorePreviousFile(path());
    EXPECT_EQ(test::errorOf([&] { readFile(path(), limit); }), ENOENT);
}

TEST_F(AtomicFile, DoesNotWriteThroughALink) {
    replaceFileDurably(path(), "one", mode);
    const std::string target = path() + ".target";
    replaceFileDurably(target, "target", mode);
    ASSERT_EQ(::symlink(target.c_str(), (path() + unfinishedSuffix).c_str()), 0);
    EXPECT_EQ(test::errorOf([&] { replaceFileDurably(path(), "two", mode); }), ELOOP);
    EXPECT_EQ(content(), "one");
    EXPECT_EQ(readFile(target, limit), "target");
}

TEST_F(AtomicFile, IsNotReadBeyondTheLimit) {
    replaceFileDurably(path(), std::string(limit, 'x'), mode);
    EXPECT_EQ(content().size(), limit);
    EXPECT_EQ(test::errorOf([&] { readFile(path(), limit - 1); }), EFBIG);
}

} // namespace
} // namespace tolvubd
