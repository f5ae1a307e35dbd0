#pragma once

#include "core/Heartbeat.h"
#include "core/backup/Backup.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupType.h"
#include "core/backup/VolumeChecksumGenerator.h"
#include "core/operation/CancelableOperation.h"
#include "support/BackupHarness.h"
#include "support/ExtImage.h"
#include "support/FakeTransport.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <future>
#include <set>

namespace agent::core::backup {

using namespace std::chrono_literals;
using testing::AssertionFailure;
using testing::AssertionResult;
using testing::AssertionSuccess;
using testing::ElementsAre;
using Line = test::RecordingLogger::Line;
using Lines = std::vector<Line>;

inline constexpr int error = info::level::error;
inline constexpr int level3 = info::level::info;
inline constexpr auto failure = info::Reason::Kind::failure;

/// The phases of a backup of two volumes, in order.
inline constexpr int populateVolumes = 0;
inline constexpr int openSession = 1;
inline constexpr int validateLocal = 2;
inline constexpr int validateRemote = 3;
inline constexpr int startSnapshotting = 4;
inline constexpr int copyFirst = 5;
inline constexpr int copySecond = 6;
inline constexpr int closeSession = 7;
inline constexpr int phaseCount = 8;
inline const std::vector<std::string> concluding = {"Transition To Incremental", "Post backup record"};

/// Calls a function unless it is empty.
inline void call(const std::function<void()>& function) {
    if (function) {
        function();
    }
}

/// A target that calls the test before each connect and write. `closed` says whether it was destroyed.
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
            ext.setUsed(block);
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

/// Backups of two volumes with the real phases. The test controls everything around them, so that it can make
/// each phase fail or cancel the backup during it.
class BackupTest : public testing::Test {
protected:
    BackupTest() {
        harness.volumes.find = [this](const std::string& uuid) {
            call(onFind);
            const auto found = volumes.find(uuid);
            return found == volumes.end() ? nullptr : found->second.volume;
        };
        for (const auto& [uuid, volume] : volumes) {
            harness.snapshots.started[uuid].snapshotPath = volume.snapshotPath;
        }
        harness.snapshots.onEnd = [this] { closedBeforeConclusion = closed[0] && closed[1]; };
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
            return harness.quiesce.onRun;
        case copyFirst:
            return targets[0]->onWrite;
        case copySecond:
            return targets[1]->onWrite;
        default:
            return harness.store.onStoreChecksum;
        }
    }

    /// Wired up as the agent does it.
    std::unique_ptr<Backup> makeBackup(std::unique_ptr<Heartbeat> heartbeat = nullptr,
                                       const std::string& id = "the-backup") {
        std::function<void()> poll;
        if (heartbeat) {
            poll = [watched = heartbeat.get()] { watched->check(); };
        }
        return harness.make(attributes, std::make_unique<WatchedOperation>(onCheck, std::move(poll)),
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
        EXPECT_THAT(harness.snapshots.transitionResults, ElementsAre(false));
        EXPECT_TRUE(closedBeforeConclusion);
        EXPECT_EQ(harness.snapshots.liveControls, 0);
        EXPECT_TRUE(anotherCanRun());
    }

    /// Runs another backup on another thread, since this thread could relock a mutex that it had left locked.
    AssertionResult anotherCanRun() {
        test::BackupHarness otherHarness; // without volumes, so that its run ends at once
        const auto other = otherHarness.make(attributes, std::make_unique<CancelableOperation>());
        std::future<void> run = std::async(std::launch::async, [&] {
            other->run(std::make_unique<BackupSession>(otherHarness.log.logger));
        });
        if (run.wait_for(30s) != std::future_status::ready) {
            std::cerr << "the run mutex was never released" << std::endl;
            std::abort(); // the other thread can't be stopped
        }
        run.get();
        return otherHarness.log.has(level3, "Beginning running backup phases...")
                   ? AssertionSuccess()
                   : AssertionFailure() << "the other backup did not run";
    }

    /// Runs `action` at the first check after a line with this text.
    void afterLine(const std::string& words, std::function<void()> action) {
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
    test::BackupHarness harness;
    test::RecordingLogger& log = harness.log;
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

} // namespace agent::core::backup
