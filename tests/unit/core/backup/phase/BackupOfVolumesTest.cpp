#include "core/backup/Backup.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupType.h"
#include "core/backup/VolumeChecksumGenerator.h"
#include "core/operation/CancelableOperation.h"
#include "support/BackupHarness.h"
#include "support/ExtVolume.h"
#include "support/FakeTransport.h"
#include "support/FaultyTransport.h"
#include "support/LoopFileSystem.h"
#include "unit/info/CowImage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <tuple>

namespace agent::core::backup::phase {
namespace {

using info::level::error;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Image = test::FakeTransport::Image;

constexpr int level3 = info::level::info;
constexpr std::uint8_t poison = 0xA5;

/// A target that reports its destruction in `closed`, and calls the test before each write.
class WatchedTransport : public test::FakeTransport {
public:
    using FakeTransport::FakeTransport;
    WatchedTransport(const WatchedTransport&) = delete;
    WatchedTransport& operator=(const WatchedTransport&) = delete;
    ~WatchedTransport() override {
        if (closed) {
            *closed = true;
        }
    }

    std::int64_t write(const void* data, std::uint64_t length) override {
        if (onWrite) {
            onWrite();
        }
        return FakeTransport::write(data, length);
    }

    std::function<void()> onWrite;
    bool* closed = nullptr;
};

/// Backups of real volumes to targets in memory. Only the snapshots are fake: a file stands for each volume's
/// snapshot.
class BackupOfVolumes : public testing::Test {
protected:
    BackupOfVolumes() {
        harness.volumes.find = [this](const std::string& uuid) { return sources.at(uuid)->volume(); };
    }

    /// Adds a volume and a target of its own, filled with a poison value.
    test::ExtVolume& add(const std::string& uuid) {
        sources.emplace(uuid, std::make_unique<test::ExtVolume>(uuid));
        test::ExtVolume& source = *sources.at(uuid);
        targets[uuid] = std::make_shared<WatchedTransport>(Image(source.image.size(), poison));
        snapshots.started[uuid].snapshotPath = source.snapshotPath;
        snapshots.started[uuid].incrementalPreserved = true;
        snapshots.ended[uuid].incrementalPreserved = true;
        volumeAttributes[uuid] = {0, FULL, {}};
        return source;
    }

    void request(std::uint32_t type) {
        for (auto& [uuid, attributes] : volumeAttributes) {
            attributes.backupType = type;
        }
    }

    /// Prepares a backup of all volumes as currently described.
    void makeBackup() {
        attributes = std::make_shared<BackupAttributes>(volumeAttributes);
        backup = harness.make(attributes, std::make_unique<CancelableOperation>(), nullptr, "backup");
        session = std::make_unique<BackupSession>(log.logger);
        for (const auto& [uuid, target] : targets) {
            session->addTransport(uuid, connect(target));
        }
        log.clear();
    }

    void run() {
        makeBackup();
        backup->run(std::move(session));
    }

    /// Writes the bitmap of the blocks that have changed since the last backup.
    void recordChanges(const std::string& uuid, const std::vector<std::uint32_t>& blocks) {
        test::CowImage cow;
        cow.table.resize(test::ExtVolume::blockCount);
        for (const std::uint32_t block : blocks) {
            cow.table[block] = 1;
        }
        const std::string path = directory / (uuid + ".tolvu");
        test::writeFile(path, cow.bytes());
        snapshots.started[uuid].incrementalBitmap = {path, 4096, cow.table.size() * 8, cow.table.size(),
                                                     cow.table.size() - blocks.size()};
    }

    /// The names of the phases that began, without those inside the copy of a volume.
    std::vector<std::string> phases() {
        const std::string beginning = "Beginning execution of the ";
        const std::string end = " phase.";
        std::vector<std::string> names;
        for (const test::RecordingLogger::Line& line : log.lines()) {
            if (line.level == level3 && line.text.starts_with(beginning)) {
                names.push_back(
                    line.text.substr(beginning.size(), line.text.size() - beginning.size() - end.size()));
            }
        }
        std::erase_if(names, [](const std::string& name) {
            return name == "Open Volume I/O" || name == "Create Chunk Range Provider" ||
                   name == "Calculate Transfer Size" || name == "Copy Chunk Ranges" ||
                   name == "Punch Holes" || name == "Modify Boot Sector";
        });
        return names;
    }

    BackupStatus status() {
        BackupStatus out;
        backup->getStatus(out);
        return out;
    }

    std::vector<std::uint32_t> states() {
        std::vector<std::uint32_t> all;
        for (const VolumeBackupStatus& volume : status().volumes) {
            all.push_back(volume.state);
        }
        return all;
    }

    std::uint32_t checksumOf(const std::string& uuid) {
        std::uint32_t checksum = 0;
        targets.at(uuid)->connect(false);
        EXPECT_TRUE(VolumeChecksumGenerator(log.logger, targets.at(uuid))
                        .generate(db::ChecksumType::libcrc32c, checksum));
        return checksum;
    }

    test::TestDirectory directory;
    test::BackupHarness harness;
    test::TestDatabase& database = harness.database;
    test::RecordingLogger& log = harness.log;
    test::SnapshotScript& snapshots = harness.snapshots;
    std::map<std::string, std::unique_ptr<test::ExtVolume>> sources;
    std::map<std::string, std::shared_ptr<WatchedTransport>> targets;
    /// Wraps the target for the backup.
    std::function<std::shared_ptr<ITransport>(const std::shared_ptr<ITransport>&)> connect =
        [](const auto& target) { return target; };
    std::unordered_map<std::string, VolumeAttributes> volumeAttributes;
    std::shared_ptr<BackupAttributes> attributes;
    std::unique_ptr<BackupSession> session;
    std::unique_ptr<Backup> backup;
};

TEST_F(BackupOfVolumes, FullBackupWritesEveryUsedBlockAndNoOther) {
    const test::ExtVolume& source = add("a");
    run();
    EXPECT_EQ(source.equalBlocks(targets["a"]->image), source.used);
    EXPECT_TRUE(backup->isFinished());
    const auto bytes = source.usedBlocks() * test::ExtVolume::blockSize;
    EXPECT_THAT(status().volumes, ElementsAre(VolumeBackupStatus{"a", VOLUME_FINISHED, FULL, bytes,
                                                                 static_cast<std::int64_t>(bytes)}));
    EXPECT_FALSE(status().connectionError);
    EXPECT_FALSE(status().snapshotError);
    EXPECT_EQ(database.storedChecksum("a"), checksumOf("a"));
    EXPECT_THAT(snapshots.transitionResults, ElementsAre(true));
}

TEST_F(BackupOfVolumes, PhasesComeInOrder) {
    add("a");
    add("b");
    run();
    const std::vector<std::string> order = attributes->getVolumeUUIDs();
    EXPECT_THAT(phases(),
                ElementsAre("Populate Volumes", "Open Backup Session", "Validate Local Targets",
                            "Validate Remote Targets", "Start Snapshotting", "Copy Volume " + order[0],
                            "Copy Volume " + order[1], "Close Backup Session", "Transition To Incremental",
                            "Post backup record"));
    EXPECT_THAT(states(), ElementsAre(VOLUME_FINISHED, VOLUME_FINISHED));
    EXPECT_NE(database.storedChecksum("a"), 0U);
    EXPECT_NE(database.storedChecksum("b"), 0U);
}

TEST_F(BackupOfVolumes, NewVolumeIsCopiedInFullWhateverWasAskedFor) {
    const test::ExtVolume& source = add("a");
    for (const std::uint32_t type : {INCREMENTAL, DIFFERENTIAL_MERGE}) {
        add("b" + std::to_string(type));
        volumeAttributes["b" + std::to_string(type)].backupType = type;
    }
    run();
    for (const VolumeBackupStatus& volume : status().volumes) {
        EXPECT_EQ(volume.backupType, FULL) << volume.uuid;
        EXPECT_TRUE(source.holdsUsedBlocks(targets[volume.uuid]->image)) << volume.uuid;
        EXPECT_TRUE(log.has(level3, "No db entry found for volume " + volume.uuid + " (/mnt), forcing FULL"));
    }
}

TEST_F(BackupOfVolumes, ComparingBackupChangesNothingOfAnEqualImage) {
    const test::ExtVolume& source = add("a");
    database.provider.setVolumeChecksum("a", 7, db::ChecksumType::libcrc32c);
    targets["a"]->image = source.image;
    request(DIFFERENTIAL_MERGE);
    run();
    EXPECT_THAT(targets["a"]->written, IsEmpty());
    EXPECT_GT(targets["a"]->writes, 0);
    EXPECT_EQ(targets["a"]->image, source.image);
    EXPECT_EQ(status().volumes.front().bytesTransferred, source.usedBlocks() * test::ExtVolume::blockSize);
    EXPECT_EQ(database.storedChecksum("a"), checksumOf("a"));
}

TEST_F(BackupOfVolumes, ComparingBackupMendsWhatDiffers) {
    const test::ExtVolume& source = add("a");
    database.provider.setVolumeChecksum("a", 7, db::ChecksumType::libcrc32c);
    targets["a"]->image = source.image;
    targets["a"]->image[3010UL * test::ExtVolume::blockSize] ^= 1U;
    request(DIFFERENTIAL_MERGE);
    run();
    EXPECT_EQ(targets["a"]->image, source.image);
    EXPECT_EQ(targets["a"]->written.size(), 1U);
}

TEST_F(BackupOfVolumes, IncrementalBackupCopiesTheBlocksThatAreMarkedAndNoOthers) {
    test::ExtVolume& source = add("a");
    run();
    const std::uint32_t before = database.storedChecksum("a");
    source.change({12, 500, 501, 3070, 2000}); // the last of these blocks isn't used
    recordChanges("a", {12, 500, 501, 2000, 3070});
    targets["a"]->written.clear();
    request(INCREMENTAL);
    run();
    constexpr std::int64_t bytes = test::ExtVolume::blockSize;
    EXPECT_THAT(targets["a"]->written, ElementsAre(test::FakeTransport::Extent(12 * bytes, bytes),
                                                   test::FakeTransport::Extent(500 * bytes, 2 * bytes),
                                                   test::FakeTransport::Extent(3070 * bytes, bytes)));
    EXPECT_EQ(source.equalBlocks(targets["a"]->image), source.used);
    EXPECT_THAT(status().volumes,
                ElementsAre(VolumeBackupStatus{"a", VOLUME_FINISHED, INCREMENTAL, 4 * bytes, 5 * bytes}));
    EXPECT_NE(database.storedChecksum("a"), before);
    EXPECT_EQ(database.storedChecksum("a"), checksumOf("a"));
}

TEST_F(BackupOfVolumes, IncrementalBackupOntoAnotherImageComparesEverything) {
    test::ExtVolume& source = add("a");
    run();
    source.change({500});
    recordChanges("a", {500});
    targets["a"]->image[11UL * test::ExtVolume::blockSize] ^= 1U;
    request(INCREMENTAL);
    run();
    EXPECT_EQ(status().volumes.front().backupType, DIFFERENTIAL_MERGE);
    EXPECT_EQ(source.equalBlocks(targets["a"]->image), source.used);
}

TEST_F(BackupOfVolumes, IncrementalBackupWithoutARecordOfChangesComparesEverything) {
    test::ExtVolume& source = add("a");
    run();
    source.change({500, 3000});
    recordChanges("a", {500});
    snapshots.started["a"].incrementalPreserved = false;
    request(INCREMENTAL);
    run();
    EXPECT_EQ(status().volumes.front().backupType, DIFFERENTIAL_MERGE);
    EXPECT_TRUE(targets["a"]->diffMerge);
    EXPECT_EQ(source.equalBlocks(targets["a"]->image), source.used);
}

TEST_F(BackupOfVolumes, VolumeThatIsNotThereFailsTheBackupBeforeTheSessionOpens) {
    add("a");
    harness.volumes.find = [](const std::string&) { return nullptr; };
    run();
    EXPECT_TRUE(log.has(error, "Exception caught during backup run: Cannot backup non existing volume."));
    EXPECT_THAT(phases(), ElementsAre("Populate Volumes", "Transition To Incremental", "Post backup record"));
    EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED));
    EXPECT_THAT(snapshots.transitionResults, ElementsAre(false));
}

TEST_F(BackupOfVolumes, LostTargetIsToldApart) {
    add("a");
    targets["a"]->refusing = true;
    run();
    EXPECT_TRUE(log.has(error, "Transport related error occurred during backup run: Failed to open transport "
                               "connection while validating remote target"));
    EXPECT_TRUE(status().connectionError);
    EXPECT_FALSE(status().snapshotError);
    EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED));
    EXPECT_THAT(phases(),
                ElementsAre("Populate Volumes", "Open Backup Session", "Validate Local Targets",
                            "Validate Remote Targets", "Transition To Incremental", "Post backup record"));
}

TEST_F(BackupOfVolumes, LastVolumeThatIsNotMountedKeepsTheOthersFromBeingTouched) {
    for (const char* uuid : {"a", "b", "c"}) {
        add(uuid);
        volumeAttributes[uuid].scripts = {{"stop", 1}};
    }
    bool isSnapshotTaken = false;
    snapshots.onStart = [&] { isSnapshotTaken = true; };
    makeBackup();
    const std::string last = attributes->getVolumeUUIDs().back();
    sources.at(last)->description.mounted = false;
    backup->run(std::move(session));
    EXPECT_TRUE(log.has(error, "Volume " + last + " (/mnt) is NOT mounted"));
    EXPECT_TRUE(log.has(error, "Exception caught during backup run: Cannot backup an unmounted device!"));
    EXPECT_FALSE(isSnapshotTaken);
    EXPECT_THAT(harness.quiesce.runs, IsEmpty());
    EXPECT_THAT(states(), Each(VOLUME_FAILED));
    for (const auto& [uuid, target] : targets) {
        EXPECT_EQ(target->connects, 0) << uuid;
    }
}

TEST_F(BackupOfVolumes, FailedSnapshotLetsGoOfVolumesAndTargets) {
    add("a");
    volumeAttributes["a"].scripts = {{"stop", 1}};
    snapshots.onStart = [] { throw std::runtime_error("no room for the CoW file"); };
    makeBackup();
    bool closed = false;
    targets["a"]->closed = &closed;
    targets.clear(); // the session holds the last reference
    backup->run(std::move(session));
    EXPECT_TRUE(closed);
    EXPECT_THAT(harness.quiesce.runs, ElementsAre("stop 1 pre", "stop 1 post"));
    EXPECT_TRUE(status().snapshotError);
    EXPECT_FALSE(status().connectionError);
    EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED));
    EXPECT_THAT(snapshots.transitionResults, ElementsAre(false));
    EXPECT_TRUE(log.has(error, "Exception caught during backup run: no room for the CoW file"));
    EXPECT_THAT(database.provider.getVolumeUUIDs(), IsEmpty());
}

TEST_F(BackupOfVolumes, CancelDuringTheCopyVouchesForNothing) {
    add("a");
    makeBackup();
    int writes = 0;
    targets["a"]->onWrite = [&] {
        if (++writes == 2) {
            backup->cancel();
        }
    };
    backup->run(std::move(session));
    EXPECT_EQ(targets["a"]->written.size(), 2U); // the chunk in progress and none after it
    EXPECT_THAT(phases(), ElementsAre("Populate Volumes", "Open Backup Session", "Validate Local Targets",
                                      "Validate Remote Targets", "Start Snapshotting", "Copy Volume a",
                                      "Transition To Incremental", "Post backup record"));
    EXPECT_THAT(snapshots.transitionResults, ElementsAre(false));
    EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED));
    EXPECT_EQ(database.storedChecksum("a"), 0U);
    EXPECT_FALSE(log.hasPart(error, ""));
    EXPECT_TRUE(log.has(level3, "Backup backup FAILED!"));
}

TEST_F(BackupOfVolumes, FailedBackupLeavesTheOldChecksumAndTheNextOneMendsTheImage) {
    test::ExtVolume& source = add("a");
    run();
    const std::uint32_t before = database.storedChecksum("a");
    source.change({12, 500, 3000});
    recordChanges("a", {12, 500, 3000});
    request(INCREMENTAL);
    connect = [](const auto& target) {
        return std::make_shared<test::FaultyTransport>(target, 10); // the write of the third chunk
    };
    run();
    EXPECT_TRUE(
        log.has(error, "Transport related error occurred during backup run: Failed to write the chunk!"));
    EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED));
    EXPECT_EQ(database.storedChecksum("a"), before);
    EXPECT_FALSE(source.holdsUsedBlocks(targets["a"]->image));

    connect = [](const auto& target) { return target; };
    recordChanges("a", {}); // even if the bitmap were lost
    run();
    EXPECT_EQ(status().volumes.front().backupType, DIFFERENTIAL_MERGE);
    EXPECT_TRUE(backup->isFinished());
    EXPECT_TRUE(source.holdsUsedBlocks(targets["a"]->image));
}

/// If a snapshot fails while it is copied, the image may be wrong, so the next backup has to compare all of
/// it.
TEST_F(BackupOfVolumes, SnapshotThatHasNotLastedFailsTheBackupAndTheNextOneMendsTheImage) {
    test::ExtVolume& source = add("a");
    run();
    for (const std::uint32_t type : {INCREMENTAL, DIFFERENTIAL_MERGE}) {
        source.change({12, 500, 3000});
        recordChanges("a", {12, 500, 3000});
        request(type);
        snapshots.started["a"].check = [] { return ESTALE; };
        snapshots.transitionResults.clear();
        run();
        EXPECT_TRUE(
            log.has(error, "Exception caught during backup run: The snapshot has not lasted for its copy!"));
        EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED));
        EXPECT_TRUE(status().snapshotError);
        EXPECT_THAT(snapshots.transitionResults, ElementsAre(false));

        snapshots.started["a"].check = nullptr;
        request(INCREMENTAL);
        run();
        EXPECT_EQ(status().volumes.front().backupType, DIFFERENTIAL_MERGE);
        EXPECT_TRUE(backup->isFinished());
        EXPECT_TRUE(source.holdsUsedBlocks(targets["a"]->image));
    }
}

TEST_F(BackupOfVolumes, VolumeThatFailsTakesTheFinishedOnesWithIt) {
    add("a");
    add("b");
    makeBackup();
    const std::vector<std::string> order = attributes->getVolumeUUIDs();
    targets.at(order[1])->longestWrite = 1;
    backup->run(std::move(session));
    EXPECT_TRUE(log.has(level3, "Finished copying volume " + order[0] + " (/mnt)"));
    EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED, VOLUME_FAILED));
    EXPECT_EQ(database.storedChecksum(order[0]), 0U);
    EXPECT_EQ(database.storedChecksum(order[1]), 0U);
}

/// Each call to the target fails in turn, in a backup of each type. Reads and writes fail with -1 or with 0.
/// A full backup also punches holes.
class EveryFailingCall : public BackupOfVolumes,
                         public testing::WithParamInterface<std::tuple<std::uint32_t, std::int64_t>> {
protected:
    EveryFailingCall() {
        source.change({12, 500, 1400, 3000});
        recordChanges("a", {12, 500, 1400, 3000});
        harness.config.enabled = type == FULL;
        request(type);
    }

    /// A backup onto the image of the last one. False if the failing call wasn't reached.
    bool runFailing(int call) {
        targets["a"] = std::make_shared<WatchedTransport>(last);
        targets["a"]->holePunching = true;
        database.provider.setVolumeChecksum("a", lastChecksum, db::ChecksumType::libcrc32c);
        std::shared_ptr<test::FaultyTransport> faulty;
        connect = [&](const auto& target) {
            faulty = std::make_shared<test::FaultyTransport>(target, call, failure);
            return faulty;
        };
        run();
        return faulty->hasFailed();
    }

    /// Once the backup may have written something, the stored checksum must be withdrawn, so that the next
    /// backup compares the image. An incremental backup keeps it, since the next backup also copies what this
    /// one should have copied.
    void expectNothingVouchedFor() {
        EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED));
        const bool isUntouched = targets["a"]->image == last;
        if (type == INCREMENTAL) {
            EXPECT_EQ(database.storedChecksum("a"), lastChecksum);
        } else if (!isUntouched) {
            EXPECT_EQ(database.storedChecksum("a"), 0U);
        }
    }

    void expectWholeImage() {
        EXPECT_TRUE(source.holdsUsedBlocks(targets["a"]->image));
        EXPECT_NE(database.storedChecksum("a"), lastChecksum);
        EXPECT_EQ(status().volumes.front().backupType, type);
    }

    const std::uint32_t type = std::get<0>(GetParam());
    const std::int64_t failure = std::get<1>(GetParam());
    test::ExtVolume& source = add("a");
    const Image last = source.image;
    const std::uint32_t lastChecksum = [this] {
        targets["a"]->image = last;
        return checksumOf("a");
    }();
};

TEST_P(EveryFailingCall, BackupIsFinishedOnlyWithTheWholeImage) {
    int finishedAllTheSame = 0;
    for (int call = 1; runFailing(call); ++call) {
        SCOPED_TRACE("call " + std::to_string(call));
        if (backup->isFinished()) {
            ++finishedAllTheSame;
            expectWholeImage();
        } else {
            expectNothingVouchedFor();
        }
    }
    EXPECT_TRUE(backup->isFinished()); // the run in which no call failed
    expectWholeImage();
    EXPECT_EQ(database.storedChecksum("a"), checksumOf("a"));
    // The seek and the punch of each hole: a failed punch only costs space.
    EXPECT_EQ(finishedAllTheSame, type == FULL ? 2 * 4 : 0);
}

INSTANTIATE_TEST_SUITE_P(Types, EveryFailingCall,
                         testing::Combine(testing::Values(std::uint32_t{FULL}, std::uint32_t{INCREMENTAL},
                                                          std::uint32_t{DIFFERENTIAL_MERGE}),
                                          testing::Values(-1, 0)));

/// Each call to the database fails in turn, in a backup of each type. A finished backup has a whole image,
/// and the next incremental backup repairs a failed one, whatever type it becomes.
class EveryFailingDatabaseCall : public BackupOfVolumes, public testing::WithParamInterface<std::uint32_t> {
protected:
    /// A backup of the changes since the last whole image. False if the failing call wasn't reached.
    bool runFailing(int call) {
        targets["a"] = std::make_shared<WatchedTransport>(Image(source.image));
        database.provider.setVolumeChecksum("a", checksumOf("a"), db::ChecksumType::libcrc32c);
        source.change({12, 500, 1400, 3000});
        recordChanges("a", {12, 500, 1400, 3000});
        request(GetParam());
        harness.store.failAt(call);
        run();
        const bool hasFailed = harness.store.hasFailed();
        harness.store.failAt(0);
        return hasFailed;
    }

    void expectWholeImage() {
        EXPECT_TRUE(source.holdsUsedBlocks(targets["a"]->image));
        EXPECT_EQ(database.storedChecksum("a"), checksumOf("a"));
    }

    test::ExtVolume& source = add("a");
};

TEST_P(EveryFailingDatabaseCall, LeavesNoWrongImage) {
    int failed = 0;
    for (int call = 1; runFailing(call); ++call) {
        SCOPED_TRACE("call " + std::to_string(call));
        if (!backup->isFinished()) {
            ++failed;
            EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED));
            request(INCREMENTAL);
            run();
            EXPECT_TRUE(backup->isFinished());
        }
        expectWholeImage();
    }
    EXPECT_GT(failed, 0); // storing the new checksum fails
    expectWholeImage();   // from the run in which no call failed
}

INSTANTIATE_TEST_SUITE_P(Types, EveryFailingDatabaseCall,
                         testing::Values(std::uint32_t{FULL}, std::uint32_t{INCREMENTAL},
                                         std::uint32_t{DIFFERENTIAL_MERGE}));

/// An ext4 made by the system's e2fsprogs and mounted read-only, as a snapshot is. Those tools also say which
/// blocks are used.
class MadeFileSystem {
    test::TestDirectory directory;

public:
    static constexpr std::uint64_t blockSize = 4096;
    static constexpr std::uint64_t blockCount = 4096;

    explicit MadeFileSystem(const std::map<std::string, std::string>& files)
        : root(directory / "root"), image(directory / "image") {
        const std::string tree = directory / "tree";
        dir::make(tree);
        dir::make(root);
        for (const auto& [name, content] : files) {
            test::writeFile(tree + "/" + name, content);
        }
        test::outputOf("mkfs.ext4 -q -b 4096 -d " + tree + " " + image + " 16M");
        test::outputOf("mount -o loop,ro " + image + " " + root);
    }
    MadeFileSystem(const MadeFileSystem&) = delete;
    MadeFileSystem& operator=(const MadeFileSystem&) = delete;
    ~MadeFileSystem() {
        try {
            test::outputOf("umount " + root);
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): the namespace ends it
        }
    }

    [[nodiscard]] std::vector<bool> usedBlocks() const {
        std::vector<bool> used(blockCount, true);
        std::istringstream lines(test::outputOf("dumpe2fs " + image + " 2>/dev/null"));
        for (std::string line; std::getline(lines, line);) {
            const std::size_t list = line.find("  Free blocks: ");
            if (list == 0) {
                clear(used, line);
            }
        }
        return used;
    }

    [[nodiscard]] std::vector<std::uint64_t> blocksOf(const std::string& name) const {
        std::istringstream numbers(
            test::outputOf("debugfs -R 'blocks /" + name + "' " + image + " 2>/dev/null"));
        return {std::istream_iterator<std::uint64_t>(numbers), {}};
    }

    std::string root;
    std::string image;

private:
    /// Clears the blocks of lists such as "3-7, 9" in `used`.
    static void clear(std::vector<bool>& used, const std::string& line) {
        const std::regex range("([0-9]+)(?:-([0-9]+))?");
        for (std::sregex_iterator found(line.begin(), line.end(), range), end; found != end; ++found) {
            const std::uint64_t first = std::stoull((*found)[1]);
            const std::uint64_t last = (*found)[2].matched ? std::stoull((*found)[2]) : first;
            for (std::uint64_t block = first; block <= last; ++block) {
                used.at(block) = false;
            }
        }
    }
};

/// The driver's own files are left out, since a restored volume doesn't need them.
TEST_F(BackupOfVolumes, RealFileSystemIsCopiedWithoutFreeBlocksAndWithoutTheDriversFiles) {
    const std::string text(300'000, 't');
    const MadeFileSystem fileSystem({{"file", text}, {".tolvu", text}, {".tolvu1", text}});
    std::vector<bool> expected = fileSystem.usedBlocks();
    for (const char* name : {".tolvu", ".tolvu1"}) {
        const std::vector<std::uint64_t> blocks = fileSystem.blocksOf(name);
        ASSERT_GE(blocks.size(), 74U);
        for (const std::uint64_t block : blocks) {
            expected.at(block) = false;
        }
    }
    add("a");
    info::VolumeDescription description = sources["a"]->description;
    description.mountPoints = {fileSystem.root};
    description.blockCount = MadeFileSystem::blockCount;
    description.size = MadeFileSystem::blockCount * MadeFileSystem::blockSize;
    harness.volumes.find = [&](const std::string&) {
        return std::make_shared<info::BackupableVolume>(description);
    };
    snapshots.started["a"].snapshotPath = fileSystem.image;
    for (const char* name : {"/.tolvu", "/.tolvu1", "/.tolvu.inc"}) {
        snapshots.started["a"].excludedFiles.push_back(fileSystem.root + name);
    }
    targets["a"]->image.assign(description.size, poison);
    run();
    ASSERT_TRUE(backup->isFinished());
    const std::string source = test::readFile(fileSystem.image);
    for (std::uint64_t block = 0; block < MadeFileSystem::blockCount; ++block) {
        const auto first = static_cast<std::ptrdiff_t>(block * MadeFileSystem::blockSize);
        const Image written(targets["a"]->image.begin() + first,
                            targets["a"]->image.begin() + first + MadeFileSystem::blockSize);
        const Image wanted = expected[block] ? Image(source.begin() + first, source.begin() + first + 4096)
                                             : Image(MadeFileSystem::blockSize, poison);
        EXPECT_EQ(written, wanted) << "block " << block;
    }
}

} // namespace
} // namespace agent::core::backup::phase
