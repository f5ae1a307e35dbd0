#include "common/Path.h"

#include "common/BaseDirectories.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace agent {
namespace {

TEST(Path, JoinPutsExactlyOneSlash) {
    EXPECT_EQ((Path("/a") / "b").str(), "/a/b");
    EXPECT_EQ((Path("/a/") / "b").str(), "/a/b");
    EXPECT_EQ((Path("/a") / "/b").str(), "/a/b");
    EXPECT_EQ((Path("/a//") / "//b/c").str(), "/a/b/c");
    EXPECT_EQ((Path("a") / Path("b") / "c").str(), "a/b/c");
}

TEST(Path, JoinToTheRootIsAbsolute) {
    EXPECT_EQ((dir::root() / "etc").str(), "/etc");
    EXPECT_EQ((dir::root() / "/etc").str(), "/etc");
    EXPECT_EQ((Path("/") / "etc").str(), "/etc");
}

TEST(Path, JoinOfAnEmptyPartChangesNothing) {
    EXPECT_EQ((Path("/a") / "").str(), "/a");
    EXPECT_EQ((Path("/a/") / "").str(), "/a/");
}

TEST(Path, ConvertsToString) {
    const std::string text = Path("/a") / "b";
    EXPECT_EQ(text, "/a/b");
}

TEST(Path, Parent) {
    EXPECT_EQ(Path("/a/b").parent().str(), "/a");
    EXPECT_EQ(Path("/a").parent().str(), "/");
    EXPECT_EQ(Path("a").parent().str(), ".");
}

class TemporaryDirectory : public testing::Test {
protected:
    void TearDown() override { unsetenv("TMPDIR"); }
};

TEST_F(TemporaryDirectory, ComesFromTheEnvironment) {
    setenv("TMPDIR", "/var/elsewhere", 1);
    EXPECT_EQ(dir::temporary().str(), "/var/elsewhere");
    EXPECT_EQ(dir::testing().str(), "/var/elsewhere/tolvu/agent/testing");
}

TEST_F(TemporaryDirectory, IsTmpWhenUnsetOrEmpty) {
    unsetenv("TMPDIR");
    EXPECT_EQ(dir::temporary().str(), "/tmp");
    setenv("TMPDIR", "", 1);
    EXPECT_EQ(dir::temporary().str(), "/tmp");
    EXPECT_EQ(dir::testing().str(), "/tmp/tolvu/agent/testing");
}

TEST_F(TemporaryDirectory, BaseDirectoryDoesNotDependOnIt) {
    setenv("TMPDIR", "/var/elsewhere", 1);
    EXPECT_EQ(dir::base().str(), "/etc/tolvu/bek");
}

} // namespace
} // namespace agent
