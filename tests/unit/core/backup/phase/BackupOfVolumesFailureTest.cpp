#include "support/FaultyTransport.h"
#include "unit/core/backup/phase/BackupOfVolumesFixture.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using info::level::error;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

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

} // namespace
} // namespace agent::core::backup::phase
