#include "support/Waiting.h"
#include "unit/core/backup/BackupFixture.h"

#include <atomic>

namespace agent::core::backup {
namespace {

using testing::ElementsAreArray;
using testing::Range;
using testing::Values;

/// An operation that records the calls of its functions.
class NotingOperation : public CancelableOperation {
public:
    explicit NotingOperation(std::vector<std::string>& calls) : calls(calls) {}
    bool run(const std::function<void(ICancel&)>& function) override {
        calls.emplace_back("run");
        return CancelableOperation::run(function);
    }
    void cancel() override {
        calls.emplace_back("cancel");
        CancelableOperation::cancel();
    }
    void reset() override {
        calls.emplace_back("reset");
        CancelableOperation::reset();
    }

private:
    std::vector<std::string>& calls;
};

TEST_F(BackupTest, CancelBeforeTheRunKeepsItFromBeginning) {
    backup->cancel();
    EXPECT_TRUE(backup->isCancelled());
    EXPECT_TRUE(backup->isActive());
    run();
    Lines expected = linesUntilSessionGone(0, false);
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
    EXPECT_TRUE(backup->isCancelled());
    EXPECT_EQ(recordedOutcome(), "cancelled");
    EXPECT_THAT(log.codes(failure), testing::IsEmpty());
    expectFailed(false);
}

TEST_F(BackupTest, CancelOfAnOperationThatNobodyAskedForIsLost) {
    auto used = std::make_unique<CancelableOperation>();
    used->cancel();
    backup = harness.make(attributes, std::move(used));
    run();
    EXPECT_TRUE(log.has(level3, "Finished running backup phases..."));
    EXPECT_FALSE(backup->isCancelled());
}

TEST_F(BackupTest, CancelBeforeTheRunComesBehindTheReset) {
    std::vector<std::string> calls;
    backup = harness.make(attributes, std::make_unique<NotingOperation>(calls));
    backup->cancel();
    run();
    EXPECT_THAT(calls, ElementsAre("cancel", "reset", "cancel", "run"));
}

TEST_F(BackupTest, CancelBeforeTheFirstPhaseKeepsItFromBeginning) {
    afterLine("Beginning running backup phases...", [this] { backup->cancel(); });
    run();
    Lines expected = linesUntilSessionGone(0, false);
    expected.insert(expected.begin() + 1, {level3, "Asking backup the-backup to cancel..."});
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
    expectFailed(false);
}

TEST_F(BackupTest, SnapshotsOfAnotherProgramAreLeftAloneByACancelledBackup) {
    SnapshotLock other;
    ASSERT_EQ(other.tryAcquire(), SnapshotLock::State::mine);
    const auto running = std::async(std::launch::async, [this] { run(); });
    EXPECT_TRUE(test::eventually([&] { return log.hasPart(level3, "Waiting for another program"); }));
    backup->cancel();
    running.wait();
    EXPECT_THAT(harness.snapshots.transitionResults, testing::IsEmpty());
    EXPECT_EQ(recordedOutcome(), "cancelled");
    EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED, VOLUME_FAILED));
}

TEST_F(BackupTest, CancelDuringTheConclusionHasNoEffect) {
    harness.snapshots.onEnd = [this] { backup->cancel(); };
    volumes.at(uuids[0]).volume->onSystemAsked = [this] { backup->cancel(); };
    run();
    EXPECT_TRUE(log.has(level3, "Finished execution of the Post backup record phase."));
    EXPECT_FALSE(log.hasPart(level3, "FAILED"));
    EXPECT_TRUE(backup->isFinished());
    EXPECT_THAT(harness.snapshots.transitionResults, ElementsAre(true));
}

TEST_F(BackupTest, CancelFromAnotherThreadStopsAWorkingPhase) {
    std::atomic<bool> working = false;
    action(copyFirst) = [&] {
        working = true;
        EXPECT_TRUE(test::eventually([&] { return backup->isCancelled(); })) << "no cancel has arrived";
    };
    std::future<void> running = std::async(std::launch::async, [this] { run(); });
    EXPECT_TRUE(test::eventually([&] { return working.load(); }));
    EXPECT_TRUE(backup->isActive());
    backup->cancel();
    running.get();
    EXPECT_TRUE(backup->isCancelled());
    EXPECT_FALSE(log.has(level3, "Finished execution of the " + nameOf(copyFirst) + " phase."));
    expectFailed(false);
}

/// Cancels between each phase and the next; the check before the next phase notices.
class CancelBetweenPhases : public BackupTest, public testing::WithParamInterface<int> {};

TEST_P(CancelBetweenPhases, TheNextDoesNotBegin) {
    afterLine("Finished execution of the " + nameOf(GetParam()) + " phase.", [this] { backup->cancel(); });
    run();
    Lines expected = linesUntilSessionGone(GetParam() + 1, false);
    expected.insert(expected.end() - 2, {level3, "Asking backup the-backup to cancel..."});
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
    EXPECT_TRUE(backup->isCancelled());
    EXPECT_EQ(recordedOutcome(), "cancelled");
    EXPECT_THAT(log.codes(failure), testing::IsEmpty());
    expectFailed(false);
}

INSTANTIATE_TEST_SUITE_P(Each, CancelBetweenPhases, Range(0, phaseCount - 1));

TEST_F(BackupTest, CancelDuringTheLastPhaseComesTooLate) {
    action(closeSession) = [this] { backup->cancel(); };
    run();
    EXPECT_TRUE(backup->isFinished());
    EXPECT_TRUE(backup->isCancelled());
    EXPECT_THAT(harness.snapshots.transitionResults, ElementsAre(true));
}

/// Cancels during a phase that itself checks for a cancel.
class CancelDuringCopies : public BackupTest, public testing::WithParamInterface<int> {};

TEST_P(CancelDuringCopies, ThePhaseDoesNotEnd) {
    action(GetParam()) = [this] { backup->cancel(); };
    run();
    Lines expected = linesUntilSessionGone(GetParam(), true);
    expected.insert(expected.end() - 2, {level3, "Asking backup the-backup to cancel..."});
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
    expectFailed(false);
}

INSTANTIATE_TEST_SUITE_P(Each, CancelDuringCopies, Values(copyFirst, copySecond));

} // namespace
} // namespace agent::core::backup
