#include "unit/core/backup/phase/BackupOfVolumesFixture.h"

#include <gmock/gmock.h>

namespace agent::core::backup::phase {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

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

} // namespace
} // namespace agent::core::backup::phase
