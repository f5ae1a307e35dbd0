#include "common/Exceptions.h"
#include "unit/core/backup/BackupFixture.h"

#include <stdexcept>
#include <tuple>

namespace agent::core::backup {
namespace {

using testing::Combine;
using testing::ElementsAreArray;
using testing::Values;
using cancel_op = CancelableOperation::cancel_op;

/// An exception that a phase can throw, and how the run reports it.
struct Kind {
    std::string name;
    std::function<void()> raise;
    std::string report; ///< empty for a cancel, which is not an error
    bool isConnectionError = false;
};

void PrintTo(const Kind& kind, std::ostream* out) {
    *out << kind.name;
}

const std::vector<Kind> kinds = {
    {"connection", [] { throw exception::transport_connection_error("target is gone"); },
     "Transport related error occurred during backup run: target is gone", true},
    {"runtime", [] { throw std::runtime_error("disk is gone"); },
     "Exception caught during backup run: disk is gone"},
    {"request", [] { throw exception::bad_request("no such thing"); },
     "Exception caught during backup run: no such thing"},
    {"library",
     [] {
         throw exception::generic_library_error<int>("Could not store", "sqlite", 13,
                                                     [](int) { return "full"; });
     },
     "Exception caught during backup run: Could not store: full | ERROR(sqlite) : 13 (0xd)"},
    {"cancel", [] { throw cancel_op(); }, ""},
    {"number", [] { throw 7; }, "Non-standard exception caught during backup run!"}, // NOLINT(misc-throw*)
};

TEST_F(BackupTest, FinishedVolumesFailWithTheBackup) {
    bool isFirstFinished = false;
    action(copySecond) = [&] {
        isFirstFinished = states()[0] == VOLUME_FINISHED;
        throw std::runtime_error("disk");
    };
    run();
    EXPECT_TRUE(isFirstFinished);
    EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED, VOLUME_FAILED));
}

/// Every kind of exception, thrown in every phase in which the test can throw.
class FailingPhase : public BackupTest, public testing::WithParamInterface<std::tuple<int, Kind>> {};

TEST_P(FailingPhase, EndsTheRun) {
    const auto& [phase, kind] = GetParam();
    action(phase) = kind.raise;
    run();
    Lines expected = linesUntilSessionGone(phase, true);
    if (!kind.report.empty()) {
        expected.push_back({error, kind.report});
    }
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
    EXPECT_EQ(recordedOutcome(), kind.report.empty() ? "cancelled" : "failed");
    EXPECT_EQ(log.codes(failure).empty(), kind.report.empty());
    expectFailed(kind.isConnectionError);
}

INSTANTIATE_TEST_SUITE_P(Each, FailingPhase,
                         Combine(Values(populateVolumes, validateLocal, validateRemote, startSnapshotting,
                                        copyFirst, copySecond, closeSession),
                                 testing::ValuesIn(kinds)));

/// Failures outside the run's own handling: in what is constructed before the phases, and in what runs after
/// them.
class FailureThatLeavesTheRun : public BackupTest, public testing::WithParamInterface<Kind> {
protected:
    /// Expects that the run throws exactly what was thrown inside it.
    void expectRunThrows() {
        bool threw = false;
        try {
            run();
        } catch (...) {
            threw = true;
            EXPECT_EQ(describe(std::current_exception()), describe(thrown()));
        }
        EXPECT_TRUE(threw);
        EXPECT_TRUE(closed[0] && closed[1]);
        EXPECT_EQ(harness.snapshots.liveControls, 0);
        EXPECT_TRUE(anotherCanRun());
    }

private:
    static std::exception_ptr thrown() {
        try {
            GetParam().raise();
        } catch (...) {
            return std::current_exception();
        }
        return nullptr;
    }

    static std::string describe(const std::exception_ptr& exception) {
        try {
            std::rethrow_exception(exception);
        } catch (const std::exception& standard) {
            return std::string(typeid(standard).name()) + " " + standard.what();
        } catch (int number) {
            return "number " + std::to_string(number);
        } catch (const cancel_op&) {
            return "cancel";
        }
    }
};

TEST_P(FailureThatLeavesTheRun, NoControlOfSnapshots) {
    harness.snapshots.onMake = GetParam().raise;
    expectRunThrows();
    Lines expected;
    appendSessionGone(expected);
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
}

TEST_P(FailureThatLeavesTheRun, SnapshotsThatCannotBeEnded) {
    harness.snapshots.onEnd = GetParam().raise;
    expectRunThrows();
    Lines expected = linesUntilSessionGone(phaseCount, false);
    expected.push_back({level3, "Beginning execution of the Transition To Incremental phase."});
    expected.push_back({error, "Failed to run post backup!"});
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
    EXPECT_THAT(states(), ElementsAre(VOLUME_FINISHED, VOLUME_FINISHED));
}

TEST_P(FailureThatLeavesTheRun, SnapshotsOfAFailedBackupThatCannotBeEnded) {
    action(validateRemote) = [] { throw std::runtime_error("disk"); };
    harness.snapshots.onEnd = GetParam().raise;
    expectRunThrows();
    EXPECT_TRUE(log.has(error, "Exception caught during backup run: disk"));
    EXPECT_EQ(linesOfRun().back(), (Line{error, "Failed to run post backup!"}));
    EXPECT_EQ(recordedOutcome(), "failed");
    EXPECT_THAT(log.codes(failure), ElementsAre("backup-failed", "clean-up-failed"));
    EXPECT_FALSE(log.hasPart(level3, "FAILED"));
    EXPECT_TRUE(backup->isActive()) << "nobody has told what became of the volumes";
}

TEST_P(FailureThatLeavesTheRun, RecordThatCannotBeMade) {
    volumes.at(uuids[0]).volume->onSystemAsked = GetParam().raise;
    expectRunThrows();
    Lines expected = linesUntilSessionGone(phaseCount, false);
    appendPhase(expected, concluding[0]);
    expected.push_back({level3, "Beginning execution of the Post backup record phase."});
    expected.push_back({error, "Failed to run post backup!"});
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
}

INSTANTIATE_TEST_SUITE_P(Each, FailureThatLeavesTheRun, testing::ValuesIn(kinds),
                         [](const auto& test) { return test.param.name; });

} // namespace
} // namespace agent::core::backup
