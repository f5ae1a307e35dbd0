#include "zephane/zephaned/ConfigFile.h"

#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zephane {
namespace {

class ConfigFileTest : public ::testing::Test {
protected:
    [[nodiscard]] std::string path() const { return (directory / "zephaned.json").str(); }
    [[nodiscard]] ConfigFile file() const { return ConfigFile(path()); }
    void write(const std::string& text, unsigned mode) const {
        std::ofstream(path()) << text;
        ASSERT_EQ(::chmod(path().c_str(), mode), 0);
    }
    [[nodiscard]] std::string error() const {
        try {
            [[maybe_unused]] const Config config = file().load();
        } catch (const ConfigError& error) {
            return error.what();
        }
        return "(none)";
    }
    [[nodiscard]] struct stat status() const {
        struct stat result{};
        ::stat(path().c_str(), &result);
        return result;
    }
    [[nodiscard]] std::string folder() const { return directory.path().str(); }

private:
    agent::test::TestDirectory directory;
};

TEST_F(ConfigFileTest, IsReadAsItWasSaved) {
    Config config;
    config.images.push_back({{"host1/data", 7}, "secret", "/srv/x"});
    file().save(config);
    EXPECT_EQ(file().load(), config);
    EXPECT_EQ(status().st_mode & 07777U, 0600U);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder()), {}), 1);
}

TEST_F(ConfigFileTest, StaysWithItsOwner) {
    constexpr uid_t other = 12345;
    write("{}", 0600);
    ASSERT_EQ(::chown(path().c_str(), other, other), 0);
    file().save(Config());
    EXPECT_EQ(status().st_uid, other);
    EXPECT_EQ(status().st_gid, other);
}

TEST_F(ConfigFileTest, BelongsToTheOwnerOfItsDirectoryAtFirst) {
    constexpr uid_t other = 12345;
    ASSERT_EQ(::chown(folder().c_str(), other, other), 0);
    file().save(Config());
    EXPECT_EQ(status().st_uid, other);
}

TEST_F(ConfigFileTest, IsNotReadWhileOthersMayReadIt) {
    for (const unsigned mode : {0640U, 0604U, 0620U, 0602U, 0644U}) {
        write("{}", mode);
        EXPECT_NE(error().find("chmod 600 " + path()), std::string::npos) << std::oct << mode;
    }
    write("{}", 0600);
    EXPECT_EQ(error(), "(none)");
}

TEST_F(ConfigFileTest, SaysWhyItCanNotBeRead) {
    EXPECT_EQ(error(), path() + ": it can't be read: No such file or directory");
    ASSERT_EQ(::mkdir(path().c_str(), 0700), 0);
    EXPECT_EQ(error(), path() + ": it has to be a file of 16 MiB at most");
}

TEST_F(ConfigFileTest, IsAsItWasWhenItCanNotBeSaved) {
    write("{}", 0600);
    Config config;
    config.images.push_back({{"\xFF", 7}, "secret", "/srv/x"});
    EXPECT_THROW(file().save(config), ConfigError);
    ASSERT_EQ(::mkdir((path() + ".new").c_str(), 0700), 0);
    EXPECT_THROW(file().save(Config()), ConfigError);
    EXPECT_EQ(file().load(), Config());
}

TEST_F(ConfigFileTest, LetsOneEditItAtATime) {
    const os::FileDescriptor other(::open(folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    {
        const os::FileDescriptor turn = file().lock();
        EXPECT_EQ(::flock(other.get(), LOCK_EX | LOCK_NB), -1);
        EXPECT_EQ(errno, EWOULDBLOCK);
    }
    EXPECT_EQ(::flock(other.get(), LOCK_EX | LOCK_NB), 0);
}

} // namespace
} // namespace zephane
