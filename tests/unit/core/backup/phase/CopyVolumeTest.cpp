#include "core/backup/phase/CopyVolume.h"

#include "common/Exceptions.h"
#include "common/PosixError.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupStatusHandler.h"
#include "core/backup/BackupType.h"
#include "core/backup/SnapshotInfo.h"
#include "support/CountedCancel.h"
#include "support/ExtVolume.h"
#include "support/FakeTransport.h"
#include "support/HolePunchOption.h"
#include "support/Messages.h"
#include "support/NtfsImage.h"
#include "support/TestDatabase.h"
#include "unit/info/CowImage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using exception::transport_connection_error;
using info::level::debug;
using info::level::error;
using info::level::warning;
using test::messageOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr int level3 = info::level::info;
constexpr std::uint8_t poison = 0xA5;
const std::string uuid = "the-volume";

class CopyVolumeTest : public testing::Test {
protected:
    CopyVolumeTest() {
        session->addTransport(uuid, target);
        session->open();
        snapshot.snapshotPath = source.snapshotPath;
        target->holePunching = true;
        log.clear();
    }

    void run(std::uint32_t type = FULL) {
        attributes.setBackupType(uuid, type);
        snapshotInfo = std::make_shared<SnapshotInfo>(VolumeSnapshotInfos{{uuid, snapshot}});
        CopyVolume phase(log.logger, *session, snapshotInfo, source.volume(), attributes, status,
                         database.provider, cancel, config);
        EXPECT_EQ(phase.getName(), "Copy Volume the-volume");
        phase.execute();
    }

    /// The lines of level 3. Parsers and ranges log a lot below it.
    std::vector<std::string> infoLines() {
        std::vector<std::string> texts;
        for (const test::RecordingLogger::Line& line : log.lines()) {
            if (line.level == level3) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }

    std::vector<std::string> phases() {
        const std::string beginning = "Beginning execution of the ";
        std::vector<std::string> names;
        for (const std::string& line : infoLines()) {
            if (line.starts_with(beginning)) {
                names.push_back(line.substr(beginning.size()));
            }
        }
        return names;
    }

    /// Writes a bitmap of changes with exactly `blocks` set.
    void recordChanges(const std::vector<std::uint32_t>& blocks) {
        test::CowImage cow;
        cow.table.resize(test::ExtVolume::blockCount);
        for (const std::uint32_t block : blocks) {
            cow.table[block] = 1;
        }
        test::writeFile(directory / ".tolvu", cow.bytes());
        snapshot.incrementalBitmap = {directory / ".tolvu", 4096, cow.table.size() * 8, cow.table.size(),
                                      cow.table.size() - blocks.size()};
    }

    VolumeBackupStatus volumeStatus() { return status.getVolumeStatuses().front(); }

    void expectUntouchedTarget() {
        EXPECT_EQ(target->image, test::FakeTransport::Image(source.image.size(), poison));
    }

    test::TestDirectory directory;
    test::ExtVolume source{uuid};
    test::TestDatabase database;
    test::RecordingLogger log;
    std::shared_ptr<test::FakeTransport> target =
        std::make_shared<test::FakeTransport>(test::FakeTransport::Image(source.image.size(), poison));
    std::unique_ptr<BackupSession> session = std::make_unique<BackupSession>(log.logger);
    VolumeSnapshotInfo snapshot;
    std::shared_ptr<ISnapshotInfo> snapshotInfo;
    BackupAttributes attributes{{{uuid, {0, FULL, {}}}}};
    BackupStatusHandler status{log.logger, {uuid}};
    test::CountedCancel cancel;
    test::HolePunchOption config;

    const std::uint64_t usedBytes = source.usedBlocks() * test::ExtVolume::blockSize;
    const std::vector<std::string> plainPhases = {
        "Open Volume I/O phase.", "Create Chunk Range Provider phase.", "Calculate Transfer Size phase.",
        "Copy Chunk Ranges phase.", "Modify Boot Sector phase."};
};

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

TEST_F(CopyVolumeTest, VolumeWithoutASnapshotFails) {
    snapshotInfo = std::make_shared<SnapshotInfo>(VolumeSnapshotInfos{});
    CopyVolume phase(log.logger, *session, snapshotInfo, source.volume(), attributes, status,
                     database.provider, cancel, config);
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { phase.execute(); }),
              "A VolumeSnapshotInfo with UUID the-volume does not exist in the volume snapshot info map. "
              "This should never happen!");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(CopyVolumeTest, VolumeWithoutATypeFails) {
    BackupAttributes others({});
    snapshotInfo = std::make_shared<SnapshotInfo>(VolumeSnapshotInfos{{uuid, snapshot}});
    CopyVolume phase(log.logger, *session, snapshotInfo, source.volume(), others, status, database.provider,
                     cancel, config);
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { phase.execute(); }),
              "A volume with ID the-volume does not exist in the volume attributes map. This should never "
              "happen!");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(CopyVolumeTest, SnapshotWithoutADeviceFailsBeforeTheCopyBegins) {
    snapshot.snapshotPath = directory / "gone";
    status.setVolumeState(uuid, VOLUME_FINISHED);
    EXPECT_THROW(run(DIFFERENTIAL_MERGE), PosixError);
    EXPECT_THAT(infoLines(),
                ElementsAre("The type of backup for volume the-volume (/mnt) is: DIFFERENTIAL MERGE"));
    EXPECT_EQ(volumeStatus(), (VolumeBackupStatus{uuid, VOLUME_ACTIVE, DIFFERENTIAL_MERGE, 0, -1}));
}

TEST_F(CopyVolumeTest, TargetThatRefusesIsAConnectionErrorAndLeavesTheDatabaseAlone) {
    target->refusing = true;
    EXPECT_EQ(messageOf<transport_connection_error>([&] { run(); }),
              "Failed to open transport connection for volume UUID the-volume");
    EXPECT_THAT(phases(), ElementsAre("Open Volume I/O phase."));
    EXPECT_THAT(database.provider.getVolumeUUIDs(), IsEmpty());
}

TEST_F(CopyVolumeTest, UnknownFileSystemFails) {
    test::writeFile(source.snapshotPath, std::string(source.image.size(), 'x'));
    EXPECT_EQ(messageOf<std::runtime_error>([&] { run(); }), "File system not recognized for the-volume");
    EXPECT_THAT(phases(), ElementsAre("Open Volume I/O phase."));
    EXPECT_THAT(database.provider.getVolumeUUIDs(), ElementsAre(uuid)); // known since the volume was opened
    expectUntouchedTarget();
}

TEST_F(CopyVolumeTest, BlocksLargerThanTheBufferAreRefused) {
    source.description.blockSize = 0x400001;
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { run(); }), "Invalid max blocks per chunk!");
    expectUntouchedTarget();
}

TEST_F(CopyVolumeTest, BlocksOfNothingAreRefused) {
    source.description.blockSize = 0;
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { run(); }), "Invalid max blocks per chunk!");
    expectUntouchedTarget();
}

// Either something else is mounted over the volume and its blocks are taken for the volume's, or the kernel
// reports another block size than the file system has. Blocks would be copied to the wrong places, and the
// last one might be incomplete.
class OtherBlockSizeTest : public CopyVolumeTest, public testing::WithParamInterface<std::uint32_t> {};

INSTANTIATE_TEST_SUITE_P(Sizes, OtherBlockSizeTest, testing::Values(512U, 1024U, 8192U, 131'072U, 0x280000U));

TEST_P(OtherBlockSizeTest, VolumeIsCopiedWhole) {
    source.description.blockSize = GetParam();
    source.description.blockCount = source.description.size / GetParam();
    config.enabled = true;
    run();
    EXPECT_EQ(target->image, source.image);
    EXPECT_THAT(target->holes, IsEmpty());
    EXPECT_TRUE(log.has(
        error, "The file system of volume the-volume (/mnt) has blocks of 4096 bytes, but its "
               "mount point says " +
                   std::to_string(GetParam()) +
                   ". What it says of used blocks doesn't fit the volume, so every block is copied."));
}

TEST_F(CopyVolumeTest, IncrementalOfAVolumeWhoseBlocksAreNotThoseOfItsMapBringsEverything) {
    source.description.blockSize = 8192;
    source.description.blockCount = test::ExtVolume::blockCount / 2;
    recordChanges({50});
    run(INCREMENTAL);
    EXPECT_EQ(source.equalBlocks(target->image), std::vector<bool>(test::ExtVolume::blockCount, true));
}

TEST_F(CopyVolumeTest, DeviceWhoseSectorsCouldNotBeAskedForIsCopied) {
    source.description.sectorSize = 0;
    run();
    EXPECT_EQ(source.equalBlocks(target->image), source.used);
}

TEST_F(CopyVolumeTest, JournalThatNeedsRecoveryIsCopiedWithEveryBlock) {
    source.image[1024 + 96] |= 0x4;
    test::writeFile(source.snapshotPath,
                    {reinterpret_cast<const char*>(source.image.data()), source.image.size()});
    run();
    EXPECT_EQ(target->image, source.image);
    EXPECT_TRUE(log.has(error, "The EXT journal needs recovery, so the bitmaps may be out of date"));
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

TEST_F(CopyVolumeTest, TargetThatTakesHolesIsLeftAloneUnlessToldOtherwise) {
    run();
    EXPECT_EQ(phases(), plainPhases);
    EXPECT_THAT(target->holes, IsEmpty());
}

TEST_F(CopyVolumeTest, TargetThatTakesNoHolesHasNone) {
    config.enabled = true;
    target->holePunching = false;
    run();
    EXPECT_EQ(phases(), plainPhases);
    EXPECT_EQ(source.equalBlocks(target->image), source.used);
}

TEST_F(CopyVolumeTest, UnusedBlocksBecomeHolesOfTheTarget) {
    config.enabled = true;
    run();
    EXPECT_THAT(phases(), ElementsAre("Open Volume I/O phase.", "Create Chunk Range Provider phase.",
                                      "Calculate Transfer Size phase.", "Copy Chunk Ranges phase.",
                                      "Punch Holes phase.", "Modify Boot Sector phase."));
    test::FakeTransport::Image expected(source.image);
    for (std::uint32_t block = 0; block < test::ExtVolume::blockCount; ++block) {
        if (!source.used[block]) {
            const auto first = static_cast<std::ptrdiff_t>(block * 4096UL);
            std::fill_n(expected.begin() + first, 4096, std::uint8_t{0});
        }
    }
    EXPECT_EQ(target->image, expected);
}

TEST_F(CopyVolumeTest, HolesOfAnIncrementalBackupAreAllUnusedBlocks) {
    config.enabled = true;
    target->image = source.image;
    recordChanges({12});
    run(INCREMENTAL);
    EXPECT_EQ(source.equalBlocks(target->image), source.used);
}

/// NTFS's bitmap covers whole clusters, so it extends past the volume.
TEST_F(CopyVolumeTest, HolesOfAVolumeLeaveItsNeighbourInTheImageAlone) {
    test::NtfsImage ntfs({.clusterCount = 4000});
    const std::size_t size = ntfs.volume.size;
    source.image.assign(size, 0);
    ntfs.volume.seek(0, SEEK_SET);
    ntfs.volume.read(source.image.data(), size);
    test::writeFile(source.snapshotPath, {reinterpret_cast<const char*>(source.image.data()), size});
    source.description.size = size;
    source.description.blockCount = size / ntfs.clusterBytes;
    target->image.assign(2 * size, poison);
    config.enabled = true;
    run();
    const auto neighbour = target->image.begin() + static_cast<std::ptrdiff_t>(size);
    EXPECT_TRUE(
        std::all_of(neighbour, target->image.end(), [](std::uint8_t byte) { return byte == poison; }));
    EXPECT_TRUE(std::equal(source.image.begin(), source.image.end(), target->image.begin()));
    EXPECT_GT(target->holes.size(), 0U);
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

TEST_F(CopyVolumeTest, CancelEndsTheCopyBetweenItsChunks) {
    cancel = test::CountedCancel(4 + 2); // one check before each phase up to the copy, then two chunks
    EXPECT_THROW(run(), CancelableOperation::cancel_op);
    EXPECT_EQ(target->written.size(), 2U);
    EXPECT_EQ(volumeStatus().state, VOLUME_ACTIVE);
    EXPECT_FALSE(log.hasPart(level3, "Modify Boot Sector"));
    EXPECT_FALSE(log.hasPart(level3, "registering"));
}

TEST_F(CopyVolumeTest, ImageWhoseHeadCannotBeReadBackFails) {
    target->image.resize(10485760 - 1);
    recordChanges({12});
    EXPECT_EQ(messageOf<std::runtime_error>([&] { run(INCREMENTAL); }),
              "Failed to generate checksum for volume: the-volume");
    EXPECT_EQ(volumeStatus().state, VOLUME_ACTIVE);
    EXPECT_FALSE(log.hasPart(level3, "Finished copying volume"));
}

TEST_F(CopyVolumeTest, TargetThatIsTooSmallIsAConnectionError) {
    target->image.resize(3000UL * 4096);
    EXPECT_EQ(messageOf<transport_connection_error>([&] { run(); }), "Failed to write the chunk!");
    EXPECT_TRUE(log.has(error, "Failed to write the chunk! (-1 bytes written out of 290816)"));
    EXPECT_EQ(volumeStatus().state, VOLUME_ACTIVE);
}

TEST_F(CopyVolumeTest, SnapshotIsCheckedOnceAllHasBeenRead) {
    int checks = 0;
    snapshot.check = [&] {
        ++checks;
        EXPECT_EQ(source.equalBlocks(target->image), source.used);
        EXPECT_TRUE(log.has(level3, "Finished execution of the Modify Boot Sector phase."));
        EXPECT_FALSE(log.hasPart(level3, "Backup session registering volume"));
        return 0;
    };
    run();
    EXPECT_EQ(checks, 1);
    EXPECT_EQ(volumeStatus().state, VOLUME_FINISHED);
    EXPECT_FALSE(status.hasSnapshotError());
}

TEST_F(CopyVolumeTest, SnapshotThatHasNotLastedFailsACopyWithoutAnError) {
    snapshot.check = [] { return ESTALE; };
    EXPECT_EQ(messageOf<std::runtime_error>([&] { run(); }), "The snapshot has not lasted for its copy!");
    EXPECT_TRUE(log.has(error, "The snapshot " + snapshot.snapshotPath +
                                   " of volume the-volume (/mnt) has not lasted for its copy: " +
                                   PosixError::describe(ESTALE)));
    EXPECT_TRUE(status.hasSnapshotError());
    EXPECT_FALSE(log.hasPart(level3, "Backup session registering volume"));
    EXPECT_EQ(database.storedChecksum(uuid), 0U);
}

/// When the store of preserved blocks is full, reads fail; the log states the actual cause.
TEST_F(CopyVolumeTest, SnapshotThatHasNotLastedIsNamedWhenReadingFails) {
    snapshot.check = [] { return ENOSPC; };
    test::writeFile(source.snapshotPath, std::string(source.image.size(), 'x'));
    EXPECT_EQ(messageOf<std::runtime_error>([&] { run(); }), "File system not recognized for the-volume");
    EXPECT_TRUE(log.hasPart(error, " has not lasted for its copy: " + PosixError::describe(ENOSPC)));
    EXPECT_TRUE(status.hasSnapshotError());
}

} // namespace
} // namespace agent::core::backup::phase
