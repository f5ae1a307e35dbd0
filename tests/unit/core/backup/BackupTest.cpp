#include "support/Messages.h"
#include "support/Waiting.h"
#include "unit/core/backup/BackupFixture.h"

#include <optional>
#include <stdexcept>

namespace agent::core::backup {
namespace {

using test::messageOf;
using testing::ElementsAreArray;

TEST_F(BackupTest, NeedsAnOperationAndVolumes) {
    const auto construct = [&](std::vector<std::string> uuids, bool withOperation) {
        std::unordered_map<std::string, VolumeAttributes> volumes;
        for (const std::string& uuid : uuids) {
            volumes[uuid] = {};
        }
        return messageOf<std::invalid_argument>([&] {
            harness.make(std::make_shared<BackupAttributes>(volumes),
                         withOperation ? std::make_unique<CancelableOperation>() : nullptr, nullptr, "");
        });
    };
    EXPECT_EQ(construct({"first"}, false), "Empty CancelableOperation supplied.");
    EXPECT_EQ(construct({}, true), "Empty volume UUID list supplied.");
    EXPECT_EQ(construct({"first", ""}, true), "Invalid volume UUID supplied.");
    EXPECT_EQ(construct({}, false), "Empty CancelableOperation supplied.");
    EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST_F(BackupTest, MakesAnIDOfItsOwnIfItIsGivenNone) {
    const auto first = makeBackup(nullptr, "");
    const auto second = makeBackup(nullptr, "");
    EXPECT_THAT(first->getId(), testing::MatchesRegex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}"));
    EXPECT_NE(first->getId(), second->getId());
    EXPECT_THAT(log.lines(), ElementsAre(Line{level3, "Generated new backup ID: " + first->getId()},
                                         Line{level3, "Generated new backup ID: " + second->getId()}));
}

TEST_F(BackupTest, KeepsTheIDThatItIsGiven) {
    EXPECT_EQ(backup->getId(), "the-backup");
    EXPECT_FALSE(log.hasPart(level3, "Generated"));
}

TEST_F(BackupTest, IsActiveAndNotCancelledBeforeItsRun) {
    EXPECT_TRUE(backup->isActive());
    EXPECT_FALSE(backup->isFinished());
    EXPECT_FALSE(backup->isCancelled());
    EXPECT_THAT(states(), ElementsAre(VOLUME_ACTIVE, VOLUME_ACTIVE));
    EXPECT_NO_THROW(backup->ping()); // it needs no heartbeat
}

TEST_F(BackupTest, RunsAllPhasesInOrder) {
    run();
    Lines expected = linesUntilSessionGone(phaseCount, false);
    appendConclusion(expected);
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
    EXPECT_EQ(recordedOutcome(), "success");
    EXPECT_TRUE(backup->isFinished());
    EXPECT_FALSE(backup->isActive());
    EXPECT_FALSE(hasConnectionError());
    EXPECT_THAT(harness.snapshots.transitionResults, ElementsAre(true));
    EXPECT_TRUE(closedBeforeConclusion);
    EXPECT_EQ(harness.snapshots.liveControls, 0);
    EXPECT_TRUE(anotherCanRun());
}

TEST_F(BackupTest, NullSessionIsRefused) {
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { backup->run(nullptr); }),
              "Invalid session pointer given to backup run!");
    EXPECT_THAT(log.lines(), testing::IsEmpty());
    EXPECT_TRUE(anotherCanRun());
}

TEST_F(BackupTest, SnapshotsOfAnotherProgramAreWaitedFor) {
    std::optional<SnapshotLock> other{std::in_place};
    ASSERT_EQ(other->tryAcquire(), SnapshotLock::State::mine);
    const auto running = std::async(std::launch::async, [this] { run(); });
    EXPECT_TRUE(test::eventually([&] { return log.hasPart(level3, "Waiting for another program"); }));
    EXPECT_FALSE(log.hasPart(level3, "Beginning execution"));
    other.reset();
    running.wait();
    EXPECT_EQ(recordedOutcome(), "success");
    EXPECT_EQ(std::make_unique<SnapshotLock>()->tryAcquire(),
              SnapshotLock::State::mine); // the lock was released
}

TEST_F(BackupTest, SessionThatIsOpenAlreadyFailsTheRun) {
    auto session = makeSession();
    session->open();
    log.clear();
    backup->run(std::move(session));
    Lines expected = linesUntilSessionGone(openSession, true);
    expected.push_back({error, "Exception caught during backup run: Backup session already open!"});
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
    expectFailed(false);
}

} // namespace
} // namespace agent::core::backup
