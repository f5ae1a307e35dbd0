#include "FileLocks.h"

#include "os/FileDescriptor.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace bekctl {
namespace {

constexpr const char* locks = "1: POSIX  ADVISORY  WRITE 11 00:17:5 0 EOF\n"
                              "2: FLOCK  ADVISORY  READ 12 00:17:5 0 EOF\n"
                              "3: FLOCK  ADVISORY  WRITE 13 00:17:50 0 EOF\n"
                              "4: FLOCK  ADVISORY  WRITE 14 00:17:5 0 EOF\n"
                              "4: -> FLOCK  ADVISORY  WRITE 15 00:17:6 0 EOF\n";

TEST(FindLockHolder, TakesTheKindThatTheAgentTakes) {
    EXPECT_EQ(findLockHolder(locks, "00:17:5"), 14);
    EXPECT_EQ(findLockHolder(locks, "00:17:6"), std::nullopt); // a process that only waits for the lock
    EXPECT_EQ(findLockHolder(locks, "00:17:7"), std::nullopt);
    EXPECT_EQ(findLockHolder("\n: \nnonsense 1 2 3", "00:17:5"), std::nullopt);
}

TEST(LockHolder, IsWhoHasTheLock) {
    const agent::test::TestDirectory directory;
    const std::string path = directory / "lock";
    EXPECT_EQ(lockHolder(path), std::nullopt);
    const os::FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(lockHolder(path), std::nullopt);
    ASSERT_EQ(::flock(file.get(), LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(lockHolder(path), ::getpid());
    ASSERT_EQ(::flock(file.get(), LOCK_UN), 0);
    EXPECT_EQ(lockHolder(path), std::nullopt);
}

} // namespace
} // namespace bekctl
