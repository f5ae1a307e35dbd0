#include "unit/core/backup/BackupFixture.h"

namespace agent::core::backup {
namespace {

/// Two backups with one log. The second has no volumes, so it ends in its first phase.
class TwoBackups : public BackupTest {
protected:
    /// Runs the first backup until it reaches `place` and holds it there. Then runs the second, which has to
    /// wait.
    void runBoth(std::function<void()>& place,
                 const std::function<void(std::future<void>& second)>& meanwhile) {
        std::promise<void> working;
        std::promise<void> leave;
        place = [&] {
            working.set_value();
            leave.get_future().wait();
        };
        std::future<void> first = std::async(std::launch::async, [this] { run(); });
        working.get_future().wait();
        std::future<void> second = std::async(
            std::launch::async, [this] { next->run(std::make_unique<BackupSession>(log.logger)); });
        meanwhile(second);
        leave.set_value();
        first.get();
        second.get();
    }

    std::shared_ptr<IBackupAttributes> nextAttributes = std::make_shared<BackupAttributes>(
        std::unordered_map<std::string, VolumeAttributes>{{"another", {0, INCREMENTAL, {}}}});
    std::unique_ptr<Backup> next =
        harness.make(nextAttributes, std::make_unique<CancelableOperation>(), nullptr, "the-next");
};

TEST_F(TwoBackups, SecondWaitsUntilTheRunOfTheFirstIsOver) {
    runBoth(volumes.at(uuids[1]).volume->onSystemAsked, [this](std::future<void>& second) {
        EXPECT_EQ(second.wait_for(100ms), std::future_status::timeout);
        EXPECT_TRUE(next->isActive());
        EXPECT_FALSE(next->isFinished());
        EXPECT_EQ(log.count(level3, "Beginning running backup phases..."), 1);
    });
    const Lines lines = log.lines();
    const auto end = std::find(lines.begin(), lines.end(),
                               Line{level3, "Finished execution of the Post backup record phase."});
    ASSERT_NE(end, lines.end());
    EXPECT_NE(std::find(end, lines.end(), Line{level3, "Beginning running backup phases..."}), lines.end());
    EXPECT_TRUE(log.has(level3, "Backup the-next FAILED!"));
    EXPECT_TRUE(backup->isFinished());
}

TEST_F(TwoBackups, CancelWhileItWaitsForItsTurnHolds) {
    runBoth(action(validateLocal), [this](std::future<void>& /*second*/) { next->cancel(); });
    EXPECT_TRUE(next->isCancelled());
    EXPECT_FALSE(next->isActive());
    EXPECT_FALSE(next->isFinished());
    EXPECT_THAT(harness.snapshots.transitionResults, ElementsAre(true, false));
    EXPECT_EQ(log.count(level3, "Beginning execution of the Populate Volumes phase."), 1);
    EXPECT_TRUE(log.has(level3, "Backup the-next FAILED!"));
}

} // namespace
} // namespace agent::core::backup
