#include "core/backup/SnapshotLock.h"

#include "support/CountedCancel.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <sys/stat.h>

namespace agent::core::backup {
namespace {

using namespace std::chrono_literals;
using State = SnapshotLock::State;
using cancel_op = CancelableOperation::cancel_op;

class SnapshotLockTest : public testing::Test {
protected:
    test::TestDirectory directory;
    const std::string path = directory / "lock";
    test::RecordingLogger log;
    test::CountedCancel never;
    std::optional<SnapshotLock> other{std::in_place, path};
    SnapshotLock lock{path};
};

TEST_F(SnapshotLockTest, BelongsToOneUntilThatGoes) {
    EXPECT_EQ(other->tryAcquire(), State::mine);
    EXPECT_EQ(other->tryAcquire(), State::mine);
    EXPECT_EQ(lock.tryAcquire(), State::others);
    other.reset();
    EXPECT_EQ(lock.tryAcquire(), State::mine);
    struct stat status{};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(SnapshotLockTest, IsHadAtOnceWhereNobodyHasIt) {
    lock.acquire(log.logger, never, 0ms);
    EXPECT_EQ(lock.tryAcquire(), State::mine);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SnapshotLockTest, IsNotWaitedForWithoutEnd) {
    other->tryAcquire();
    EXPECT_EQ(test::messageOf<std::runtime_error>([&] { lock.acquire(log.logger, never, 1ms); }),
              "Another program doesn't end its snapshots!");
    EXPECT_TRUE(log.hasPart(info::level::info, "Waiting for another program"));
    EXPECT_EQ(lock.tryAcquire(), State::others);
}

TEST_F(SnapshotLockTest, IsNotWaitedForByWhatIsCancelled) {
    other->tryAcquire();
    test::CountedCancel cancel(1);
    EXPECT_THROW(lock.acquire(log.logger, cancel), cancel_op);
}

TEST_F(SnapshotLockTest, ThatCanNotBeHadIsGoneWithout) {
    const std::string elsewhere = directory / "elsewhere";
    std::filesystem::create_symlink(elsewhere, path);
    lock.acquire(log.logger, never, 0ms);
    EXPECT_TRUE(log.hasPart(info::level::warning, "Could not lock " + path));
    EXPECT_EQ(lock.tryAcquire(), State::unguarded);
    EXPECT_FALSE(std::filesystem::exists(elsewhere));
}

} // namespace
} // namespace agent::core::backup
