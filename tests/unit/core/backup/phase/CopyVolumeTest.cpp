#include "unit/core/backup/phase/CopyVolumeFixture.h"

#include <gmock/gmock.h>

namespace agent::core::backup::phase {
namespace {

using info::level::debug;
using info::level::warning;
using testing::ElementsAre;
using testing::StartsWith;

TEST_F(CopyVolumeTest, EveryUsedBlockIsCopiedAndNoOther) {
    run();
    EXPECT_EQ(source.equalBlocks(target->image), source.used);
    EXPECT_EQ(volumeStatus(), (VolumeBackupStatus{uuid, VOLUME_FINISHED, FULL, usedBytes,
                                                  static_cast<std::int64_t>(usedBytes)}));
    EXPECT_FALSE(target->diffMerge);
}

/// The log must show each step of the copy, in order.
TEST_F(CopyVolumeTest, SaysWhatItDoesInOrder) {
    run();
    const auto phaseLines = [](const std::string& name) {
        return std::vector<std::string>{"Beginning execution of the " + name + " phase.",
                                        "Finished execution of the " + name + " phase."};
    };
    const std::vector<std::string> lines = infoLines();
    ASSERT_EQ(lines.size(), 16U);
    EXPECT_EQ(lines[0], "The type of backup for volume the-volume (/mnt) is: FULL");
    EXPECT_EQ(lines[1], "Beginning copying volume the-volume (/mnt)");
    EXPECT_EQ(lines[2], phaseLines("Open Volume I/O")[0]);
    EXPECT_EQ(lines[3], "Backup session created a volume writer for volume UUID the-volume");
    EXPECT_EQ(lines[4], phaseLines("Open Volume I/O")[1]);
    EXPECT_EQ(lines[5], phaseLines("Create Chunk Range Provider")[0]);
    EXPECT_EQ(lines[6], phaseLines("Create Chunk Range Provider")[1]);
    EXPECT_EQ(lines[7], phaseLines("Calculate Transfer Size")[0]);
    EXPECT_THAT(lines[8], StartsWith("The total estimated bytes to copy for volume the-volume is 5672960 ("));
    EXPECT_EQ(lines[9], phaseLines("Calculate Transfer Size")[1]);
    EXPECT_EQ(lines[10], phaseLines("Copy Chunk Ranges")[0]);
    EXPECT_EQ(lines[11], phaseLines("Copy Chunk Ranges")[1]);
    EXPECT_EQ(lines[12], phaseLines("Modify Boot Sector")[0]);
    EXPECT_EQ(lines[13], phaseLines("Modify Boot Sector")[1]);
    EXPECT_THAT(lines[14], StartsWith("Backup session registering volume UUID 'the-volume' with checksum '"));
    EXPECT_EQ(lines[15], "Finished copying volume the-volume (/mnt)");
}

TEST_F(CopyVolumeTest, OnlyAComparingBackupHasTheTargetCompare) {
    run(DIFFERENTIAL_MERGE);
    EXPECT_TRUE(target->diffMerge);
    EXPECT_EQ(infoLines().front(), "The type of backup for volume the-volume (/mnt) is: DIFFERENTIAL MERGE");
    EXPECT_EQ(volumeStatus().backupType, DIFFERENTIAL_MERGE);
    EXPECT_EQ(source.equalBlocks(target->image), source.used);
}

TEST_F(CopyVolumeTest, IncrementalBackupCopiesTheChangedBlocksThatAreUsed) {
    recordChanges({0, 12, 50, 1400, 1401, 3070});
    run(INCREMENTAL);
    std::vector<bool> expected(test::ExtVolume::blockCount);
    for (const std::uint32_t block : {0, 12, 1400, 3070}) {
        expected[block] = true;
    }
    EXPECT_EQ(source.equalBlocks(target->image), expected);
    EXPECT_FALSE(target->diffMerge);
    EXPECT_EQ(infoLines().front(), "The type of backup for volume the-volume (/mnt) is: INCREMENTAL");
    EXPECT_EQ(volumeStatus(),
              (VolumeBackupStatus{uuid, VOLUME_FINISHED, INCREMENTAL, 4UL * 4096, 6L * 4096}));
}

TEST_F(CopyVolumeTest, IncrementalBackupWithoutChangesCopiesNothingAndIsRegistered) {
    recordChanges({});
    run(INCREMENTAL);
    expectUntouchedTarget();
    EXPECT_EQ(phases(), plainPhases);
    EXPECT_TRUE(log.has(debug, "Total bytes copied is 0 (0 B)"));
    EXPECT_TRUE(log.hasPart(level3, "Backup session registering volume UUID 'the-volume'"));
    EXPECT_EQ(volumeStatus(), (VolumeBackupStatus{uuid, VOLUME_FINISHED, INCREMENTAL, 0, 0}));
}

TEST_F(CopyVolumeTest, ChecksumIsThatOfTheImageAndIsStoredWithTheSession) {
    run();
    EXPECT_EQ(database.storedChecksum(uuid), 0U);
    session->finishWriting(database.provider);
    EXPECT_NE(database.storedChecksum(uuid), 0U);
    EXPECT_TRUE(log.has(level3, "Backup session registering volume UUID 'the-volume' with checksum '" +
                                    std::to_string(database.storedChecksum(uuid)) + "'"));
}

TEST_F(CopyVolumeTest, NewVolumeIsAddedToTheDatabase) {
    run();
    EXPECT_THAT(database.provider.getVolumeUUIDs(), ElementsAre(uuid));
    EXPECT_EQ(database.storedChecksum(uuid), 0U);
    EXPECT_TRUE(log.has(debug, "Adding db entry of volume the-volume (/mnt)"));
}

/// A full copy is made because the image is in doubt, or of a new image. If it fails half-way, the start of
/// the image may match the old checksum while the rest is wrong.
TEST_F(CopyVolumeTest, FullCopyWithdrawsTheChecksumBeforeItBegins) {
    database.provider.setVolumeChecksum(uuid, 7, db::ChecksumType::libcrc32c);
    run(FULL);
    EXPECT_EQ(database.storedChecksum(uuid), 0U);
    EXPECT_FALSE(log.hasPart(debug, "Adding db entry"));
}

TEST_F(CopyVolumeTest, ComparisonWithdrawsTheChecksumBeforeItBegins) {
    database.provider.setVolumeChecksum(uuid, 7, db::ChecksumType::libcrc32c);
    run(DIFFERENTIAL_MERGE);
    EXPECT_EQ(database.storedChecksum(uuid), 0U);
}

TEST_F(CopyVolumeTest, ImageThatOnlyLacksChangesKeepsItsChecksum) {
    database.provider.setVolumeChecksum(uuid, 7, db::ChecksumType::libcrc32c);
    recordChanges({12});
    run(INCREMENTAL);
    EXPECT_EQ(database.storedChecksum(uuid), 7U);
}

TEST_F(CopyVolumeTest, DatabaseThatFailsDoesNotFailTheCopy) {
    database.destroy();
    run();
    EXPECT_EQ(source.equalBlocks(target->image), source.used);
    EXPECT_FALSE(log.hasPart(debug, "Adding db entry"));
}

TEST_F(CopyVolumeTest, ChunksAreAsLargeAsTheBuffer) {
    run();
    EXPECT_THAT(target->written,
                testing::Contains(test::FakeTransport::Extent(100 * 4096, 0x400000))); // of 1301 blocks
}

TEST_F(CopyVolumeTest, TailOfTheVolumeThatIsNoBlockIsWarnedOf) {
    source.description.size += 100;
    run();
    EXPECT_TRUE(log.has(warning, "The total volume size 12583012 is not divisible by the block size 4096, "
                                 "you will lose 100 bytes at the end."));
    EXPECT_EQ(source.equalBlocks(target->image), source.used);
}

TEST_F(CopyVolumeTest, BootSectorIsChangedAfterTheBlocksAreCopied) {
    source.description.fileSystem = "NTFS"; // only the description says NTFS
    run();
    EXPECT_EQ(target->image[24], 63);
    EXPECT_EQ(target->image[25], 0);
    EXPECT_EQ(target->written.back(), test::FakeTransport::Extent(0, 512));
    EXPECT_EQ(target->image[26], source.image[26]);
}

TEST_F(CopyVolumeTest, BootSectorWithLargeSectorsIsCopiedAsItIs) {
    source.description.fileSystem = "NTFS";
    source.description.sectorSize = 4096;
    run();
    EXPECT_EQ(source.equalBlocks(target->image), source.used);
}

} // namespace
} // namespace agent::core::backup::phase
