#include "core/backup/Backup.h"

#include "common/Exceptions.h"
#include "core/Heartbeat.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupSession.h"
#include "core/backup/SnapshotAttributes.h"
#include "core/operation/CancelableOperation.h"
#include "support/FakeTransport.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/ScriptedPhases.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <stdexcept>
#include <tuple>

namespace agent::core::backup {
namespace {

using namespace std::chrono_literals;
using test::messageOf;
using testing::AssertionFailure;
using testing::AssertionResult;
using testing::AssertionSuccess;
using testing::Combine;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Range;
using testing::Values;
using cancel_op = CancelableOperation::cancel_op;
using Line = test::RecordingLogger::Line;
using Lines = std::vector<Line>;

constexpr int error = info::level::error;
constexpr int level3 = info::level::info;

/// The phases of one backup of two volumes, with what comes before the volumes are known in front.
const std::vector<std::string> running = {
    "Populate Volumes",   "Open Backup Session", "Validate Local Targets", "Validate Remote Targets",
    "Start Snapshotting", "Copy volume first",   "Copy volume second",     "Close Backup Session"};
const std::vector<std::string> concluding = {"Transition To Incremental", "Post backup record"};
constexpr int phaseCount = 8;

/// What a phase can throw, and how the run reports it.
struct Kind {
    std::string name;
    std::function<void()> raise;
    std::string report; ///< Empty for a cancel, which is no error.
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

/// A transport that tells when it goes.
class ClosingTransport : public test::FakeTransport {
public:
    explicit ClosingTransport(bool& closed) : closed(closed) { closed = false; }
    ClosingTransport(const ClosingTransport&) = delete;
    ClosingTransport& operator=(const ClosingTransport&) = delete;
    ~ClosingTransport() override { closed = true; }

private:
    bool& closed;
};

/// An operation that notes what is done with it.
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

class BackupTest : public testing::Test {
protected:
    BackupTest() {
        factory.populate.push_back({running.front()});
        for (std::size_t i = 1; i < running.size(); ++i) {
            factory.transfer.push_back({running[i]});
        }
        for (const std::string& name : concluding) {
            factory.conclude.push_back({name, [this] { closedBeforeConclusion = transportClosed; }});
        }
        log.clear();
    }

    std::function<void()>& action(int phase) {
        return phase == 0 ? factory.populate[0].action
                          : factory.transfer[static_cast<std::size_t>(phase) - 1].action;
    }

    /// Wired as the composition of the agent does it.
    std::unique_ptr<Backup> makeBackup(std::unique_ptr<Heartbeat> heartbeat = nullptr,
                                       const std::string& id = "the-backup") {
        std::function<void()> poll;
        if (heartbeat) {
            poll = [watched = heartbeat.get()] { watched->check(); };
        }
        return std::make_unique<Backup>(log.logger, factory, attributes, snapshotAttributes,
                                        std::make_unique<CancelableOperation>(std::move(poll)),
                                        std::move(heartbeat), id);
    }

    std::unique_ptr<BackupSession> makeSession() {
        auto session = std::make_unique<BackupSession>(log.logger);
        session->addTransport("first", std::make_shared<ClosingTransport>(transportClosed));
        log.clear();
        return session;
    }

    void run() { backup->run(makeSession()); }

    void finishVolumes() {
        for (const std::string& uuid : attributes->getVolumeUUIDs()) {
            factory.status->setVolumeState(uuid, VOLUME_FINISHED);
        }
    }

    /// The lines of a run up to where it leaves the phases: `finished` of them came to their end, and one
    /// more has begun if `interrupted`. Then the session goes.
    static Lines linesUntilSessionGone(int finished, bool interrupted) {
        Lines lines{{level3, "Beginning running backup phases..."}};
        for (int i = 0; i < finished; ++i) {
            appendPhase(lines, running[static_cast<std::size_t>(i)]);
        }
        if (interrupted) {
            lines.push_back({level3, "Beginning execution of the " +
                                         running[static_cast<std::size_t>(finished)] + " phase."});
        } else if (finished == phaseCount) {
            lines.push_back({level3, "Finished running backup phases..."});
        }
        appendSessionGone(lines);
        return lines;
    }

    static void appendSessionGone(Lines& lines) {
        lines.push_back({level3, "Closing backup session, finalizing remote targets..."});
        lines.push_back({info::level::debug, "Backup session destroyed"});
    }

    static void appendPhase(Lines& lines, const std::string& name) {
        lines.push_back({level3, "Beginning execution of the " + name + " phase."});
        lines.push_back({level3, "Finished execution of the " + name + " phase."});
    }

    static void appendConclusion(Lines& lines) {
        for (const std::string& name : concluding) {
            appendPhase(lines, name);
        }
    }

    void appendFailed(Lines& lines) const {
        lines.push_back({level3, "Backup the-backup FAILED!"});
        lines.push_back({level3, "Backup failed, setting all volumes to failed."});
        for (const std::string& uuid : attributes->getVolumeUUIDs()) {
            lines.push_back({level3, "Setting volume " + uuid + " to failed."});
        }
    }

    std::vector<std::uint32_t> states() {
        BackupStatus status;
        backup->getStatus(status);
        std::vector<std::uint32_t> all;
        for (const VolumeBackupStatus& volume : status.volumes) {
            all.push_back(volume.state);
        }
        return all;
    }

    bool hasConnectionError() {
        BackupStatus status;
        backup->getStatus(status);
        return status.connectionError;
    }

    /// A run that has failed or was cancelled: how it is reported, and that all is ready for the next.
    void expectFailed(bool connectionError) {
        EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED, VOLUME_FAILED));
        EXPECT_EQ(hasConnectionError(), connectionError);
        EXPECT_THAT(factory.concluded, ElementsAre(false));
        EXPECT_TRUE(closedBeforeConclusion);
        EXPECT_EQ(factory.living, 0);
        EXPECT_TRUE(anotherCanRun());
    }

    /// On another thread, since a mutex that was left locked would be locked by this one.
    AssertionResult anotherCanRun() {
        test::RecordingLogger otherLog;
        test::ScriptedPhaseFactory otherFactory;
        Backup other(otherLog.logger, otherFactory, attributes, snapshotAttributes,
                     std::make_unique<CancelableOperation>(), nullptr, "other");
        std::future<void> run = std::async(
            std::launch::async, [&] { other.run(std::make_unique<BackupSession>(otherLog.logger)); });
        if (run.wait_for(30s) != std::future_status::ready) {
            std::cerr << "the run mutex was never released" << std::endl;
            std::abort(); // the other run can't be taken back
        }
        run.get();
        return otherLog.has(level3, "Finished running backup phases...")
                   ? AssertionSuccess()
                   : AssertionFailure() << "the other backup did not run";
    }

    test::RecordingLogger log;
    test::ScriptedPhaseFactory factory;
    std::shared_ptr<IBackupAttributes> attributes =
        std::make_shared<BackupAttributes>(std::unordered_map<std::string, VolumeAttributes>{
            {"first", {0, INCREMENTAL, {}}}, {"second", {0, INCREMENTAL, {}}}});
    std::shared_ptr<ISnapshotAttributes> snapshotAttributes =
        std::make_shared<SnapshotAttributes>(0, std::vector<std::string>{}, 0);
    bool transportClosed = false;
    bool closedBeforeConclusion = false;
    std::unique_ptr<Backup> backup = makeBackup();
};

TEST_F(BackupTest, NeedsAnOperationAndVolumes) {
    const auto construct = [&](std::vector<std::string> uuids, bool withOperation) {
        std::unordered_map<std::string, VolumeAttributes> volumes;
        for (const std::string& uuid : uuids) {
            volumes[uuid] = {};
        }
        return messageOf<std::invalid_argument>([&] {
            Backup(log.logger, factory, std::make_shared<BackupAttributes>(volumes), snapshotAttributes,
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
    EXPECT_NO_THROW(backup->ping()); // nobody has to watch it
}

TEST_F(BackupTest, RunsAllPhasesInOrder) {
    action(phaseCount - 1) = [this] { finishVolumes(); };
    run();
    Lines expected = linesUntilSessionGone(phaseCount, false);
    appendConclusion(expected);
    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
    EXPECT_TRUE(backup->isFinished());
    EXPECT_FALSE(backup->isActive());
    EXPECT_FALSE(hasConnectionError());
    EXPECT_THAT(factory.concluded, ElementsAre(true));
    EXPECT_TRUE(closedBeforeConclusion);
    EXPECT_EQ(factory.living, 0);
    EXPECT_TRUE(anotherCanRun());
}

TEST_F(BackupTest, CopiesAreMadeWhenTheVolumesAreKnown) {
    action(0) = [this] { factory.transfer.push_back({"Copy volume late"}); };
    run();
    EXPECT_TRUE(log.has(level3, "Finished execution of the Copy volume late phase."));
}

TEST_F(BackupTest, NullSessionIsRefused) {
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { backup->run(nullptr); }),
              "Invalid session pointer given to backup run!");
    EXPECT_THAT(log.lines(), testing::IsEmpty());
    EXPECT_TRUE(anotherCanRun());
}

TEST_F(BackupTest, CancelBeforeTheRunKeepsItFromBeginning) {
    backup->cancel();
    EXPECT_TRUE(backup->isCancelled());
    EXPECT_TRUE(backup->isActive());
    run();
    Lines expected = linesUntilSessionGone(0, false);
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
    EXPECT_TRUE(backup->isCancelled());
    expectFailed(false);
}

TEST_F(BackupTest, CancelOfAnOperationThatNobodyAskedForIsLost) {
    auto used = std::make_unique<CancelableOperation>();
    used->cancel();
    backup = std::make_unique<Backup>(log.logger, factory, attributes, snapshotAttributes, std::move(used),
                                      nullptr, "the-backup");
    run();
    EXPECT_TRUE(log.has(level3, "Finished running backup phases..."));
    EXPECT_FALSE(backup->isCancelled());
}

TEST_F(BackupTest, CancelBeforeTheRunComesBehindTheReset) {
    std::vector<std::string> calls;
    backup = std::make_unique<Backup>(log.logger, factory, attributes, snapshotAttributes,
                                      std::make_unique<NotingOperation>(calls), nullptr, "the-backup");
    backup->cancel();
    run();
    EXPECT_THAT(calls, ElementsAre("cancel", "reset", "cancel", "run"));
}

TEST_F(BackupTest, CancelWhileThePhasesAreMadeKeepsTheFirstFromBeginning) {
    factory.onPopulate = [this] { backup->cancel(); };
    run();
    Lines expected = linesUntilSessionGone(0, false);
    expected.insert(expected.begin(), {level3, "Asking backup the-backup to cancel..."});
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
    expectFailed(false);
}

TEST_F(BackupTest, CancelDuringTheConclusionHasNoEffect) {
    action(phaseCount - 1) = [this] { finishVolumes(); };
    factory.onConclude = [this] { backup->cancel(); };
    factory.conclude[0].action = [this] { backup->cancel(); };
    run();
    EXPECT_TRUE(log.has(level3, "Finished execution of the Post backup record phase."));
    EXPECT_FALSE(log.hasPart(level3, "FAILED"));
    EXPECT_TRUE(backup->isFinished());
    EXPECT_THAT(factory.concluded, ElementsAre(true));
}

TEST_F(BackupTest, FinishedVolumesFailWithTheBackup) {
    action(6) = [this] { // the first volume has been copied
        factory.status->setVolumeState("first", VOLUME_FINISHED);
        throw std::runtime_error("disk");
    };
    run();
    EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED, VOLUME_FAILED));
}

TEST_F(BackupTest, CancelFromAnotherThreadStopsAWorkingPhase) {
    std::atomic<bool> working = false;
    action(5) = [&] {
        working = true;
        EXPECT_TRUE(test::eventually([&] {
            factory.cancel->check();
            return false;
        })) << "no cancel has arrived";
    };
    std::future<void> running = std::async(std::launch::async, [this] { run(); });
    EXPECT_TRUE(test::eventually([&] { return working.load(); }));
    EXPECT_TRUE(backup->isActive());
    backup->cancel();
    running.get();
    EXPECT_TRUE(backup->isCancelled());
    EXPECT_FALSE(log.hasPart(level3, "Finished execution of the Copy"));
    expectFailed(false);
}

/// A cancel at the end of each phase, which the check before the next one sees.
class CancelBetweenPhases : public BackupTest, public testing::WithParamInterface<int> {};

TEST_P(CancelBetweenPhases, TheNextDoesNotBegin) {
    action(GetParam()) = [this] { backup->cancel(); };
    run();
    Lines expected = linesUntilSessionGone(GetParam() + 1, false);
    const std::size_t begun = 2 * static_cast<std::size_t>(GetParam()) + 2;
    expected.insert(expected.begin() + static_cast<std::ptrdiff_t>(begun),
                    {level3, "Asking backup the-backup to cancel..."});
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
    EXPECT_TRUE(backup->isCancelled());
    expectFailed(false);
}

INSTANTIATE_TEST_SUITE_P(Each, CancelBetweenPhases, Range(0, phaseCount - 1));

TEST_F(BackupTest, CancelDuringTheLastPhaseComesTooLate) {
    action(phaseCount - 1) = [this] {
        finishVolumes();
        backup->cancel();
    };
    run();
    EXPECT_TRUE(backup->isFinished());
    EXPECT_TRUE(backup->isCancelled());
    EXPECT_THAT(factory.concluded, ElementsAre(true));
}

/// A cancel that a phase sees by a check of its own.
class CancelDuringPhases : public BackupTest, public testing::WithParamInterface<int> {};

TEST_P(CancelDuringPhases, ThePhaseDoesNotEnd) {
    action(GetParam()) = [this] {
        backup->cancel();
        if (factory.cancel == nullptr) {
            throw cancel_op(); // the first phase is given no check of its own
        }
        factory.cancel->check();
    };
    run();
    Lines expected = linesUntilSessionGone(GetParam(), true);
    expected.insert(expected.end() - 2, {level3, "Asking backup the-backup to cancel..."});
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
    expectFailed(false);
}

INSTANTIATE_TEST_SUITE_P(Each, CancelDuringPhases, Range(0, phaseCount));

/// Every kind of exception from every phase.
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
    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
    expectFailed(kind.isConnectionError);
}

INSTANTIATE_TEST_SUITE_P(Each, FailingPhase, Combine(Range(0, phaseCount), testing::ValuesIn(kinds)));

class FailingToMakePhases : public BackupTest, public testing::WithParamInterface<Kind> {
protected:
    void expectRunReports(Lines expected) {
        if (!GetParam().report.empty()) {
            expected.push_back({error, GetParam().report});
        }
        appendConclusion(expected);
        appendFailed(expected);
        EXPECT_THAT(log.lines(), ElementsAreArray(expected));
        expectFailed(GetParam().isConnectionError);
    }

    /// What leaves the run is exactly what was thrown.
    void expectRunThrows() {
        bool threw = false;
        try {
            run();
        } catch (...) {
            threw = true;
            EXPECT_EQ(describe(std::current_exception()), describe(thrown()));
        }
        EXPECT_TRUE(threw);
        EXPECT_TRUE(transportClosed);
        EXPECT_EQ(factory.living, 0);
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

TEST_P(FailingToMakePhases, OfTheVolumes) {
    factory.onPopulate = GetParam().raise;
    run();
    Lines expected;
    appendSessionGone(expected);
    expectRunReports(expected);
}

TEST_P(FailingToMakePhases, OfTheBackup) {
    factory.onTransfer = GetParam().raise;
    run();
    expectRunReports(linesUntilSessionGone(1, false));
}

TEST_P(FailingToMakePhases, OfTheConclusion) {
    factory.onConclude = GetParam().raise;
    expectRunThrows();
    Lines expected = linesUntilSessionGone(phaseCount, false);
    expected.push_back({error, "Failed to run post backup!"});
    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
}

TEST_P(FailingToMakePhases, OfAnyKind) {
    factory.onCreate = GetParam().raise;
    expectRunThrows();
    Lines expected;
    appendSessionGone(expected);
    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
}

TEST_P(FailingToMakePhases, NorCanTheFirstConcludingOneFailQuietly) {
    factory.conclude[0].action = GetParam().raise;
    expectRunThrows();
    Lines expected = linesUntilSessionGone(phaseCount, false);
    expected.push_back({level3, "Beginning execution of the Transition To Incremental phase."});
    expected.push_back({error, "Failed to run post backup!"});
    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
    EXPECT_TRUE(backup->isActive()) << "nobody has told what became of the volumes";
}

TEST_P(FailingToMakePhases, NorTheLastOfAFailedBackup) {
    action(3) = [] { throw std::runtime_error("disk"); };
    factory.conclude[1].action = GetParam().raise;
    expectRunThrows();
    EXPECT_TRUE(log.has(error, "Exception caught during backup run: disk"));
    EXPECT_EQ(log.lines().back(), (Line{error, "Failed to run post backup!"}));
    EXPECT_FALSE(log.hasPart(level3, "FAILED"));
    EXPECT_TRUE(backup->isActive());
}

INSTANTIATE_TEST_SUITE_P(Each, FailingToMakePhases, testing::ValuesIn(kinds),
                         [](const auto& test) { return test.param.name; });

/// With a real watchdog, to which a moment of silence is too long.
class WatchedBackup : public BackupTest {
protected:
    void watch(std::chrono::nanoseconds timeout) {
        backup = makeBackup(std::make_unique<Heartbeat>(timeout));
    }

    static constexpr const char* lost = "Backup cancelling due to lost ordak ping";
};

TEST_F(WatchedBackup, SilenceAfterAPingCancelsItAtTheNextCheck) {
    watch(1ns);
    action(2) = [this] { backup->ping(); };
    run();
    Lines expected = linesUntilSessionGone(3, false);
    expected.insert(expected.end() - 2, {error, lost});
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
    EXPECT_TRUE(backup->isCancelled());
    expectFailed(false);
}

TEST_F(WatchedBackup, SilenceIsSeenInsideAPhase) {
    watch(20ms);
    action(5) = [this] {
        backup->ping();
        EXPECT_NO_THROW(factory.cancel->check());
        (void)test::eventually([this] {
            factory.cancel->check();
            return false;
        });
        FAIL() << "nobody has missed a ping";
    };
    run();
    EXPECT_EQ(log.count(error, lost), 1);
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

/// A heartbeat that tells what was done with it.
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
    backup = std::make_unique<Backup>(log.logger, factory, attributes, snapshotAttributes,
                                      std::make_unique<CancelableOperation>(),
                                      std::make_unique<RecordedHeartbeat>(log.logger), "the-backup");
    action(3) = [this] { backup->ping(); };
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

/// Two backups with one log, each with phases of its own.
class TwoBackups : public BackupTest {
protected:
    TwoBackups() {
        nextFactory.populate = {{"Populate Volumes of the next"}};
        nextFactory.conclude = {{"Post backup record of the next"}};
    }

    test::ScriptedPhaseFactory nextFactory;
    Backup next{
        log.logger, nextFactory, attributes, snapshotAttributes, std::make_unique<CancelableOperation>(),
        nullptr,    "the-next"};
};

TEST_F(TwoBackups, SecondWaitsUntilTheRunOfTheFirstIsOver) {
    std::promise<void> working;
    std::promise<void> leave;
    factory.conclude[1].action = [&] { // the last that a run does
        working.set_value();
        leave.get_future().wait();
    };
    std::future<void> first = std::async(std::launch::async, [this] { run(); });
    working.get_future().wait();
    std::atomic<bool> called = false;
    std::future<void> second = std::async(std::launch::async, [&] {
        auto session = std::make_unique<BackupSession>(log.logger);
        called = true;
        next.run(std::move(session));
    });
    EXPECT_TRUE(test::eventually([&] { return called.load(); }));
    EXPECT_EQ(second.wait_for(100ms), std::future_status::timeout);
    EXPECT_TRUE(next.isActive());
    EXPECT_FALSE(next.isFinished());
    EXPECT_EQ(log.count(level3, "Beginning running backup phases..."), 1);
    leave.set_value();
    first.get();
    second.get();
    const Lines lines = log.lines();
    const auto find = [&](const char* text) {
        return std::find(lines.begin(), lines.end(), Line{level3, text});
    };
    const auto end = find("Finished execution of the Post backup record phase.");
    ASSERT_NE(end, lines.end());
    EXPECT_LT(end, find("Beginning execution of the Populate Volumes of the next phase."));
    EXPECT_LT(end, std::find(end, lines.end(), Line{level3, "Beginning running backup phases..."}));
    EXPECT_TRUE(log.has(level3, "Finished execution of the Post backup record of the next phase."));
}

TEST_F(TwoBackups, CancelWhileItWaitsForItsTurnHolds) {
    std::promise<void> working;
    std::promise<void> leave;
    action(4) = [&] {
        working.set_value();
        leave.get_future().wait();
    };
    std::future<void> first = std::async(std::launch::async, [this] { run(); });
    working.get_future().wait();
    next.cancel();
    std::future<void> second =
        std::async(std::launch::async, [this] { next.run(std::make_unique<BackupSession>(log.logger)); });
    leave.set_value();
    first.get();
    second.get();
    EXPECT_TRUE(next.isCancelled());
    EXPECT_FALSE(next.isActive());
    EXPECT_FALSE(next.isFinished());
    EXPECT_THAT(nextFactory.concluded, ElementsAre(false));
    EXPECT_FALSE(log.has(level3, "Beginning execution of the Populate Volumes of the next phase."));
    EXPECT_TRUE(log.has(level3, "Backup the-next FAILED!"));
}

} // namespace
} // namespace agent::core::backup
