#include "common/Flock.h"

#include "common/File.h"
#include "support/Messages.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace agent {
namespace {

using test::messageOf;

class FlockTest : public testing::Test {
protected:
    test::TestDirectory directory;
    const std::string path = directory / "bekd.pid";
};

TEST_F(FlockTest, WritesThePidWithoutNewline) {
    Flock lock(path);
    lock.writePid();
    EXPECT_EQ(test::readFile(path), std::to_string(::getpid()));
}

TEST_F(FlockTest, ReplacesWhatACrashLeftBehind) {
    test::writeFile(path, "12345678901234567890\n");
    Flock lock(path);
    lock.writePid();
    EXPECT_EQ(test::readFile(path), std::to_string(::getpid()));
}

TEST_F(FlockTest, OnlyRootCanHoldTheLock) {
    test::writeFile(path, "1");
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    { // a file of an earlier version, or one that another instance holds, gets the right mode
        const Flock first(path);
        EXPECT_EQ(file::status(path).st_mode & 07777U, 0600U);
    }
    const Flock fresh(path);
    EXPECT_EQ(file::status(path).st_mode & 07777U, 0600U);
}

TEST_F(FlockTest, DestructorRemovesTheFile) {
    {
        const Flock lock(path);
    }
    EXPECT_FALSE(file::exists(path));
}

TEST_F(FlockTest, SecondLockIsRefusedAndLeavesTheFirstAlone) {
    Flock first(path);
    first.writePid();
    int error = 0;
    EXPECT_EQ(messageOf<std::runtime_error>([&] {
                  try {
                      const Flock second(path);
                  } catch (const std::exception&) {
                      error = errno;
                      throw;
                  }
              }),
              "File already locked");
    EXPECT_EQ(error, EAGAIN);
    EXPECT_EQ(test::readFile(path), std::to_string(::getpid()));
}

TEST_F(FlockTest, FileThatCannotBeOpened) {
    int error = 0;
    EXPECT_EQ(messageOf<std::runtime_error>([&] {
                  try {
                      const Flock lock(directory / "none/bekd.pid");
                  } catch (const std::exception&) {
                      error = errno;
                      throw;
                  }
              }),
              "Unable to lock file");
    EXPECT_EQ(error, ENOENT);
}

TEST_F(FlockTest, FullDiskIsReportedByTheWrite) {
    const std::string small = directory / "small";
    dir::make(small);
    ASSERT_EQ(::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=4k"), 0);
    test::writeFile(small + "/filler", std::string(4096, 'x'));
    {
        Flock lock(small + "/bekd.pid");
        EXPECT_EQ(messageOf<std::runtime_error>([&] { lock.writePid(); }), "Unable to write to lock file");
    }
    ASSERT_EQ(::umount(small.c_str()), 0);
}

TEST_F(FlockTest, ChildProgramsDoNotInheritTheLock) {
    auto lock = std::make_unique<Flock>(path);
    const pid_t child = ::fork();
    if (child == 0) {
        ::execl("/bin/sleep", "sleep", "60", nullptr);
        ::_exit(127);
    }
    ASSERT_GT(child, 0);
    // Only this close releases the lock, although the child lives on after execve().
    lock.reset();
    bool locked = false;
    for (int i = 0; i < 1000 && !locked; ++i) {
        ::usleep(10'000);
        try {
            const Flock again(path);
            locked = true;
        } catch (const std::runtime_error&) {
            locked = false;
        }
    }
    EXPECT_TRUE(locked);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

} // namespace
} // namespace agent
