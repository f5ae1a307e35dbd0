#include "unit/core/backup/BackupFixture.h"

#include <thread>

namespace agent::core::backup {
namespace {

using testing::ElementsAreArray;

/// Uses a real watchdog with a very short timeout.
class WatchedBackup : public BackupTest {
protected:
    void watch(std::chrono::nanoseconds timeout) {
        backup = makeBackup(std::make_unique<Heartbeat>(timeout));
    }

    static constexpr const char* lost = "Backup cancelling due to lost ordak ping";
};

TEST_F(WatchedBackup, SilenceAfterAPingCancelsItAtTheNextCheck) {
    watch(1ns);
    action(validateLocal) = [this] { backup->ping(); };
    run();
    Lines expected = linesUntilSessionGone(validateLocal + 1, false);
    expected.insert(expected.end() - 2, {error, lost});
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
    EXPECT_TRUE(backup->isCancelled());
    EXPECT_EQ(recordedOutcome(), "cancelled");
    EXPECT_THAT(log.codes(failure), ElementsAre("appliance-silent"));
    expectFailed(false);
}

TEST_F(WatchedBackup, SilenceIsSeenInsideAPhase) {
    watch(20ms);
    action(copyFirst) = [this] {
        backup->ping();
        std::this_thread::sleep_for(40ms);
    };
    run();
    EXPECT_EQ(log.count(error, lost), 1);
    EXPECT_FALSE(log.has(level3, "Finished execution of the " + nameOf(copyFirst) + " phase."));
    expectFailed(false);
}

TEST_F(WatchedBackup, RunsOnWhileItIsFed) {
    watch(1h);
    for (int phase = 0; phase < phaseCount; ++phase) {
        action(phase) = [this] { backup->ping(); };
    }
    run();
    EXPECT_TRUE(log.has(level3, "Finished running backup phases..."));
    EXPECT_FALSE(backup->isCancelled());
}

TEST_F(WatchedBackup, SilenceOfOneWhoHasNeverAskedIsNone) {
    watch(0ns);
    run();
    EXPECT_TRUE(log.has(level3, "Finished running backup phases..."));
}

TEST_F(WatchedBackup, TimeBeforeTheRunDoesNotCount) {
    watch(0ns);
    backup->ping();
    run();
    EXPECT_TRUE(log.has(level3, "Finished running backup phases..."));
    EXPECT_EQ(log.count(error, lost), 0);
}

/// A heartbeat that logs how it is used.
class RecordedHeartbeat : public IHeartbeat {
public:
    explicit RecordedHeartbeat(info::Logger& logger) : logger(logger) {}
    void ping() override { logger.log(level3, "heartbeat: ping"); }
    void reset() override { logger.log(level3, "heartbeat: reset"); }
    void setCallback(std::function<void()> callback) override {
        logger.log(level3, callback ? "heartbeat: callback" : "heartbeat: no callback");
    }

private:
    info::Logger& logger;
};

TEST_F(WatchedBackup, WatchdogIsResetBeforeAndLetGoAfterTheRun) {
    backup = harness.make(attributes, std::make_unique<CancelableOperation>(),
                          std::make_unique<RecordedHeartbeat>(log.logger));
    action(validateLocal) = [this] { backup->ping(); };
    run();
    Lines heartbeat;
    for (const Line& line : log.lines()) {
        if (line.text.starts_with("heartbeat") || line.text.ends_with("running backup phases...") ||
            line.text.find("Transition") != std::string::npos) {
            heartbeat.push_back(line);
        }
    }
    EXPECT_THAT(
        heartbeat,
        ElementsAre(Line{level3, "heartbeat: reset"}, Line{level3, "heartbeat: callback"},
                    Line{level3, "Beginning running backup phases..."}, Line{level3, "heartbeat: ping"},
                    Line{level3, "Finished running backup phases..."}, Line{level3, "heartbeat: no callback"},
                    Line{level3, "Beginning execution of the Transition To Incremental phase."},
                    Line{level3, "Finished execution of the Transition To Incremental phase."}));
}

} // namespace
} // namespace agent::core::backup
