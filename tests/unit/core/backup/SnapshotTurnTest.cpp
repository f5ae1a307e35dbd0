#include "core/backup/SnapshotTurn.h"

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
using State = SnapshotTurn::State;
using cancel_op = CancelableOperation::cancel_op;

class SnapshotTurnTest : public testing::Test {
protected:
    test::TestDirectory directory;
    const std::string path = directory / "turn";
    test::RecordingLogger log;
    test::CountedCancel never;
    std::optional<SnapshotTurn> other{std::in_place, path};
    SnapshotTurn turn{path};
};

TEST_F(SnapshotTurnTest, BelongsToOneUntilThatGoes) {
    EXPECT_EQ(other->take(), State::mine);
    EXPECT_EQ(other->take(), State::mine);
    EXPECT_EQ(turn.take(), State::others);
    other.reset();
    EXPECT_EQ(turn.take(), State::mine);
    struct stat status{};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(SnapshotTurnTest, IsHadAtOnceWhereNobodyHasIt) {
    turn.wait(log.logger, never, 0ms);
    EXPECT_EQ(turn.take(), State::mine);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SnapshotTurnTest, IsNotWaitedForWithoutEnd) {
    other->take();
    EXPECT_EQ(test::messageOf<std::runtime_error>([&] { turn.wait(log.logger, never, 1ms); }),
              "Another program doesn't end its snapshots!");
    EXPECT_TRUE(log.hasPart(info::level::info, "Waiting for another program"));
    EXPECT_EQ(turn.take(), State::others);
}

TEST_F(SnapshotTurnTest, IsNotWaitedForByWhatIsCancelled) {
    other->take();
    test::CountedCancel cancel(1);
    EXPECT_THROW(turn.wait(log.logger, cancel), cancel_op);
}

TEST_F(SnapshotTurnTest, ThatCanNotBeHadIsGoneWithout) {
    const std::string elsewhere = directory / "elsewhere";
    std::filesystem::create_symlink(elsewhere, path);
    turn.wait(log.logger, never, 0ms);
    EXPECT_TRUE(log.hasPart(info::level::warning, "Could not lock " + path));
    EXPECT_EQ(turn.take(), State::unguarded);
    EXPECT_FALSE(std::filesystem::exists(elsewhere));
}

} // namespace
} // namespace agent::core::backup
