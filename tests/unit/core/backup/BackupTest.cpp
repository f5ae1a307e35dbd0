#include "core/backup/Backup.h"

#include "common/Exceptions.h"
#include "core/Heartbeat.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupType.h"
#include "core/backup/VolumeChecksumGenerator.h"
#include "core/operation/CancelableOperation.h"
#include "support/BackupStage.h"
#include "support/ExtImage.h"
#include "support/FakeTransport.h"
#include "support/Messages.h"
#include "support/TestDirectory.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>
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
constexpr auto failure = info::Reason::Kind::failure;

/// The phases of a backup of two volumes, in order.
constexpr int populateVolumes = 0;
constexpr int openSession = 1;
constexpr int validateLocal = 2;
constexpr int validateRemote = 3;
constexpr int startSnapshotting = 4;
constexpr int copyFirst = 5;
constexpr int copySecond = 6;
constexpr int closeSession = 7;
constexpr int phaseCount = 8;
const std::vector<std::string> concluding = {"Transition To Incremental", "Post backup record"};

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

/// Calls a function unless it is empty.
void call(const std::function<void()>& function) {
    if (function) {
        function();
    }
}

/// A target that calls the test before each connect and write. `closed` tells whether it was destroyed.
class WatchedTransport : public test::FakeTransport {
public:
    explicit WatchedTransport(bool& closed)
        : FakeTransport(VolumeChecksumGenerator::regionBytes), closed(closed) {
        closed = false;
    }
    WatchedTransport(const WatchedTransport&) = delete;
    WatchedTransport& operator=(const WatchedTransport&) = delete;
    ~WatchedTransport() override { closed = true; }

    bool connect(bool diffMerge) override {
        call(onConnect);
        return FakeTransport::connect(diffMerge);
    }
    std::int64_t write(const void* data, std::uint64_t length) override {
        call(onWrite);
        return FakeTransport::write(data, length);
    }

    std::function<void()> onConnect;
    std::function<void()> onWrite;

private:
    bool& closed;
};

/// A volume that calls the test when a backup asks whether it is mounted (early) or the OS volume (late).
class WatchedVolume : public info::BackupableVolume {
public:
    using BackupableVolume::BackupableVolume;

    [[nodiscard]] bool isMounted() const override {
        call(onMountAsked);
        return BackupableVolume::isMounted();
    }
    [[nodiscard]] bool isOSVolume() const override {
        call(onSystemAsked);
        return BackupableVolume::isOSVolume();
    }

    std::function<void()> onMountAsked;
    std::function<void()> onSystemAsked;
};

/// An ext volume of a few blocks, with a file in place of its snapshot's device.
class TinyVolume {
    test::TestDirectory directory;

public:
    explicit TinyVolume(const std::string& uuid) {
        constexpr std::uint32_t blockCount = 32;
        test::ExtImage ext({.blockCount = blockCount});
        for (std::uint32_t block = 0; block < blockCount / 2; ++block) {
            ext.use(block);
        }
        std::string bytes(ext.volume.size, '\0');
        ext.volume.read(bytes.data(), bytes.size());
        test::writeFile(snapshotPath, bytes);
        info::VolumeDescription description;
        description.uuid = uuid;
        description.device = "/dev/null";
        description.fileSystem = "ext4";
        description.mountPoints = {"/mnt"};
        description.mounted = true;
        description.size = bytes.size();
        description.blockSize = static_cast<std::uint32_t>(ext.blockSize);
        description.blockCount = blockCount;
        description.sectorSize = 512;
        volume = std::make_shared<WatchedVolume>(description);
    }

    const std::string snapshotPath = directory / "snapshot";
    std::shared_ptr<WatchedVolume> volume;
};

/// An operation that calls the test before each check.
class WatchedOperation : public CancelableOperation {
public:
    WatchedOperation(const std::function<void()>& onCheck, std::function<void()> poll)
        : CancelableOperation(std::move(poll)), onCheck(onCheck) {}

    bool run(const std::function<void(ICancel&)>& function) override {
        return CancelableOperation::run([&](ICancel& cancel) {
            Watched watched(cancel, onCheck);
            function(watched);
        });
    }

private:
    class Watched : public ICancel {
    public:
        Watched(ICancel& cancel, const std::function<void()>& onCheck) : cancel(cancel), onCheck(onCheck) {}
        void check() override {
            call(onCheck);
            cancel.check();
        }

    private:
        ICancel& cancel;
        const std::function<void()>& onCheck;
    };

    const std::function<void()>& onCheck;
};

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

/// Backups of two volumes with the real phases. The test controls everything around them, so that it can make
/// each phase fail or cancel the backup during it.
class BackupTest : public testing::Test {
protected:
    BackupTest() {
        stage.volumes.find = [this](const std::string& uuid) {
            call(onFind);
            const auto found = volumes.find(uuid);
            return found == volumes.end() ? nullptr : found->second.volume;
        };
        for (const auto& [uuid, volume] : volumes) {
            stage.snapshots.started[uuid].snapshotPath = volume.snapshotPath;
        }
        stage.snapshots.onEnd = [this] { closedBeforeConclusion = closed[0] && closed[1]; };
        log.clear();
    }

    /// The function that is called during a phase. There is none for opening the session.
    std::function<void()>& action(int phase) {
        switch (phase) {
        case populateVolumes:
            return onFind;
        case validateLocal:
            return volumes.at(uuids[0]).volume->onMountAsked;
        case validateRemote:
            return targets[0]->onConnect;
        case startSnapshotting:
            return stage.quiesce.onRun;
        case copyFirst:
            return targets[0]->onWrite;
        case copySecond:
            return targets[1]->onWrite;
        default:
            return stage.store.onVouch;
        }
    }

    /// Wired up as the agent does it.
    std::unique_ptr<Backup> makeBackup(std::unique_ptr<Heartbeat> heartbeat = nullptr,
                                       const std::string& id = "the-backup") {
        std::function<void()> poll;
        if (heartbeat) {
            poll = [watched = heartbeat.get()] { watched->check(); };
        }
        return stage.make(attributes, std::make_unique<WatchedOperation>(onCheck, std::move(poll)),
                          std::move(heartbeat), id);
    }

    /// A session with these volumes. When it runs, it holds the last references to the targets.
    std::unique_ptr<BackupSession> makeSession() {
        auto session = std::make_unique<BackupSession>(log.logger);
        for (std::size_t i = 0; i < uuids.size(); ++i) {
            session->addTransport(uuids[i], std::exchange(targets[i], nullptr));
        }
        log.clear();
        return session;
    }

    void run() { backup->run(makeSession()); }

    [[nodiscard]] std::string nameOf(int phase) const {
        return std::array<std::string, phaseCount>{"Populate Volumes",        "Open Backup Session",
                                                   "Validate Local Targets",  "Validate Remote Targets",
                                                   "Start Snapshotting",      "Copy Volume " + uuids[0],
                                                   "Copy Volume " + uuids[1], "Close Backup Session"}
            .at(static_cast<std::size_t>(phase));
    }

    /// The lines that the run itself logged, without those of its phases.
    [[nodiscard]] Lines linesOfRun() const {
        Lines lines = log.lines();
        std::erase_if(lines, [this](const Line& line) { return !isOfRun(line.text); });
        return lines;
    }

    /// The lines of a run until it leaves the phases: `finished` phases ended, and one more began if
    /// `interrupted`. Then the session is destroyed.
    [[nodiscard]] Lines linesUntilSessionGone(int finished, bool interrupted) const {
        Lines lines{{level3, "Beginning running backup phases..."}};
        for (int phase = 0; phase < finished; ++phase) {
            appendPhase(lines, nameOf(phase));
        }
        if (interrupted) {
            lines.push_back({level3, "Beginning execution of the " + nameOf(finished) + " phase."});
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
        for (const std::string& uuid : uuids) {
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

    /// The outcome in the volumes' records, if there is exactly one record per volume, after all other lines.
    [[nodiscard]] std::string recordedOutcome() const {
        const Lines lines = log.lines();
        std::set<std::string> outcomes;
        for (std::size_t i = 0; i < uuids.size(); ++i) {
            const std::string& text = lines.at(lines.size() - uuids.size() + i).text;
            EXPECT_THAT(text, testing::StartsWith("Backup record: {"));
            EXPECT_THAT(text, testing::HasSubstr("\"volume\":\"" + uuids[i] + "\""));
            const std::string key = "\"outcome\":\"";
            const std::size_t begin = std::min(text.find(key), text.size() - key.size()) + key.size();
            outcomes.insert(text.substr(begin, text.find('"', begin) - begin));
        }
        return outcomes.size() == 1 ? *outcomes.begin() : "not the same for all";
    }

    /// Checks that a failed or cancelled run is reported as such, and that the next run can start.
    void expectFailed(bool connectionError) {
        EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED, VOLUME_FAILED));
        EXPECT_EQ(hasConnectionError(), connectionError);
        EXPECT_THAT(stage.snapshots.ends, ElementsAre(false));
        EXPECT_TRUE(closedBeforeConclusion);
        EXPECT_EQ(stage.snapshots.living, 0);
        EXPECT_TRUE(anotherCanRun());
    }

    /// Runs another backup on another thread, since this thread could relock a mutex that it had left locked.
    AssertionResult anotherCanRun() {
        test::BackupStage otherStage; // without volumes, so that its run ends at once
        const auto other = otherStage.make(attributes, std::make_unique<CancelableOperation>());
        std::future<void> run = std::async(
            std::launch::async, [&] { other->run(std::make_unique<BackupSession>(otherStage.log.logger)); });
        if (run.wait_for(30s) != std::future_status::ready) {
            std::cerr << "the run mutex was never released" << std::endl;
            std::abort(); // the other thread can't be stopped
        }
        run.get();
        return otherStage.log.has(level3, "Beginning running backup phases...")
                   ? AssertionSuccess()
                   : AssertionFailure() << "the other backup did not run";
    }

    /// Runs `action` at the first check after a line with this text.
    void behind(const std::string& words, std::function<void()> action) {
        onCheck = [this, words, action = std::move(action)] {
            if (log.lines().back().text == words) {
                action();
            }
        };
    }

    std::function<void()> onFind;
    std::function<void()> onCheck;
    std::map<std::string, TinyVolume> volumes = [] {
        std::map<std::string, TinyVolume> made;
        made.try_emplace("first", "first");
        made.try_emplace("second", "second");
        return made;
    }();
    test::BackupStage stage;
    test::RecordingLogger& log = stage.log;
    std::shared_ptr<IBackupAttributes> attributes =
        std::make_shared<BackupAttributes>(std::unordered_map<std::string, VolumeAttributes>{
            {"first", {0, INCREMENTAL, {{"stop", 1}}}}, {"second", {0, INCREMENTAL, {}}}});
    const std::vector<std::string> uuids = attributes->getVolumeUUIDs();
    std::array<bool, 2> closed{};
    std::array<std::shared_ptr<WatchedTransport>, 2> targets = {
        std::make_shared<WatchedTransport>(closed[0]), std::make_shared<WatchedTransport>(closed[1])};
    bool closedBeforeConclusion = false;
    std::unique_ptr<Backup> backup = makeBackup();

private:
    [[nodiscard]] bool isOfRun(const std::string& text) const {
        for (int phase = 0; phase < phaseCount; ++phase) {
            if (text.ends_with(" execution of the " + nameOf(phase) + " phase.")) {
                return true;
            }
        }
        for (const std::string& name : concluding) {
            if (text.ends_with(" execution of the " + name + " phase.")) {
                return true;
            }
        }
        for (const char* words : {"running backup phases...", "Closing backup session", "session destroyed",
                                  "during backup run", " FAILED!", "setting all volumes", " to failed.",
                                  "Asking backup", "Failed to run post backup", "lost ordak ping"}) {
            if (text.find(words) != std::string::npos) {
                return true;
            }
        }
        return false;
    }
};

TEST_F(BackupTest, NeedsAnOperationAndVolumes) {
    const auto construct = [&](std::vector<std::string> uuids, bool withOperation) {
        std::unordered_map<std::string, VolumeAttributes> volumes;
        for (const std::string& uuid : uuids) {
            volumes[uuid] = {};
        }
        return messageOf<std::invalid_argument>([&] {
            stage.make(std::make_shared<BackupAttributes>(volumes),
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
    EXPECT_THAT(stage.snapshots.ends, ElementsAre(true));
    EXPECT_TRUE(closedBeforeConclusion);
    EXPECT_EQ(stage.snapshots.living, 0);
    EXPECT_TRUE(anotherCanRun());
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
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
    EXPECT_TRUE(backup->isCancelled());
    EXPECT_EQ(recordedOutcome(), "cancelled");
    EXPECT_THAT(log.codes(failure), testing::IsEmpty());
    expectFailed(false);
}

TEST_F(BackupTest, CancelOfAnOperationThatNobodyAskedForIsLost) {
    auto used = std::make_unique<CancelableOperation>();
    used->cancel();
    backup = stage.make(attributes, std::move(used));
    run();
    EXPECT_TRUE(log.has(level3, "Finished running backup phases..."));
    EXPECT_FALSE(backup->isCancelled());
}

TEST_F(BackupTest, CancelBeforeTheRunComesBehindTheReset) {
    std::vector<std::string> calls;
    backup = stage.make(attributes, std::make_unique<NotingOperation>(calls));
    backup->cancel();
    run();
    EXPECT_THAT(calls, ElementsAre("cancel", "reset", "cancel", "run"));
}

TEST_F(BackupTest, CancelBeforeTheFirstPhaseKeepsItFromBeginning) {
    behind("Beginning running backup phases...", [this] { backup->cancel(); });
    run();
    Lines expected = linesUntilSessionGone(0, false);
    expected.insert(expected.begin() + 1, {level3, "Asking backup the-backup to cancel..."});
    appendConclusion(expected);
    appendFailed(expected);
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
    expectFailed(false);
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

TEST_F(BackupTest, SnapshotsOfAnotherProgramAreLeftAloneByACancelledBackup) {
    SnapshotLock other;
    ASSERT_EQ(other.tryAcquire(), SnapshotLock::State::mine);
    const auto running = std::async(std::launch::async, [this] { run(); });
    EXPECT_TRUE(test::eventually([&] { return log.hasPart(level3, "Waiting for another program"); }));
    backup->cancel();
    running.wait();
    EXPECT_THAT(stage.snapshots.ends, testing::IsEmpty());
    EXPECT_EQ(recordedOutcome(), "cancelled");
    EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED, VOLUME_FAILED));
}

TEST_F(BackupTest, CancelDuringTheConclusionHasNoEffect) {
    stage.snapshots.onEnd = [this] { backup->cancel(); };
    volumes.at(uuids[0]).volume->onSystemAsked = [this] { backup->cancel(); };
    run();
    EXPECT_TRUE(log.has(level3, "Finished execution of the Post backup record phase."));
    EXPECT_FALSE(log.hasPart(level3, "FAILED"));
    EXPECT_TRUE(backup->isFinished());
    EXPECT_THAT(stage.snapshots.ends, ElementsAre(true));
}

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
    behind("Finished execution of the " + nameOf(GetParam()) + " phase.", [this] { backup->cancel(); });
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
    EXPECT_THAT(stage.snapshots.ends, ElementsAre(true));
}

/// Cancels during a phase that checks by itself.
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
        EXPECT_EQ(stage.snapshots.living, 0);
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
    stage.snapshots.onMake = GetParam().raise;
    expectRunThrows();
    Lines expected;
    appendSessionGone(expected);
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
}

TEST_P(FailureThatLeavesTheRun, SnapshotsThatCannotBeEnded) {
    stage.snapshots.onEnd = GetParam().raise;
    expectRunThrows();
    Lines expected = linesUntilSessionGone(phaseCount, false);
    expected.push_back({level3, "Beginning execution of the Transition To Incremental phase."});
    expected.push_back({error, "Failed to run post backup!"});
    EXPECT_THAT(linesOfRun(), ElementsAreArray(expected));
    EXPECT_THAT(states(), ElementsAre(VOLUME_FINISHED, VOLUME_FINISHED));
}

TEST_P(FailureThatLeavesTheRun, SnapshotsOfAFailedBackupThatCannotBeEnded) {
    action(validateRemote) = [] { throw std::runtime_error("disk"); };
    stage.snapshots.onEnd = GetParam().raise;
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

/// With a real watchdog with a very short timeout.
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
    backup = stage.make(attributes, std::make_unique<CancelableOperation>(),
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
        stage.make(nextAttributes, std::make_unique<CancelableOperation>(), nullptr, "the-next");
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
    EXPECT_THAT(stage.snapshots.ends, ElementsAre(true, false));
    EXPECT_EQ(log.count(level3, "Beginning execution of the Populate Volumes phase."), 1);
    EXPECT_TRUE(log.has(level3, "Backup the-next FAILED!"));
}

} // namespace
} // namespace agent::core::backup
