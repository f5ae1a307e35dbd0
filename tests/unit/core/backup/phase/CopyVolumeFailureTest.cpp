#include "common/Exceptions.h"
#include "common/PosixError.h"
#include "support/Messages.h"
#include "unit/core/backup/phase/CopyVolumeFixture.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using exception::transport_connection_error;
using info::level::error;
using test::messageOf;
using testing::ElementsAre;
using testing::IsEmpty;

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
