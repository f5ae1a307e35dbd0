#include "zephane/zephaned/RuntimeDirectory.h"

#include "support/TestDirectory.h"
#include "zephane/zephaned/Config.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace zephane {
namespace {

class RuntimeDirectoryTest : public ::testing::Test {
protected:
    [[nodiscard]] const std::string& path() const { return place; }

private:
    agent::test::TestDirectory directory;
    std::string place = (directory / "run").str();
};

TEST_F(RuntimeDirectoryTest, IsMadeForNobodyElse) {
    RuntimeDirectory directory(path());
    EXPECT_EQ(std::filesystem::status(path()).permissions(), std::filesystem::perms::owner_all);
    const std::string one = directory.newSocket();
    EXPECT_TRUE(one.starts_with(path() + "/"));
    EXPECT_NE(directory.newSocket(), one);
}

TEST_F(RuntimeDirectoryTest, IsClosedToOthersAndClearedOfOldSockets) {
    ASSERT_EQ(::mkdir(path().c_str(), 0777), 0);
    std::ofstream(path() + "/1.sock").close();
    std::ofstream(path() + "/other").close();
    RuntimeDirectory directory(path());
    EXPECT_EQ(std::filesystem::status(path()).permissions(), std::filesystem::perms::owner_all);
    EXPECT_FALSE(std::filesystem::exists(path() + "/1.sock"));
    EXPECT_TRUE(std::filesystem::exists(path() + "/other"));
}

TEST_F(RuntimeDirectoryTest, IsOneServersOnly) {
    {
        const RuntimeDirectory directory(path());
        EXPECT_THROW(RuntimeDirectory{path()}, ConfigError);
    }
    EXPECT_NO_THROW(RuntimeDirectory{path()});
}

TEST_F(RuntimeDirectoryTest, MustBePossible) {
    std::ofstream(path()).close();
    EXPECT_THROW(RuntimeDirectory{path()}, ConfigError);
    EXPECT_THROW(RuntimeDirectory{path() + "/below"}, ConfigError);
}

} // namespace
} // namespace zephane
