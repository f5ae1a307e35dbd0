#pragma once

#include "common/AlignedBuffer.h"
#include "common/config/IConfig.h"
#include "core/backup/BackupSession.h"
#include "core/backup/IBackupAttributes.h"
#include "core/backup/IBackupStatusHandler.h"
#include "core/backup/ISnapshotInfo.h"
#include "core/operation/ICancel.h"
#include "core/operation/IPhase.h"
#include "db/IDataProvider.h"
#include "info/BackupableVolume.h"
#include "info/log/Logger.h"

namespace agent::core::backup::phase {

/// Copies one volume to its remote image, in phases of its own, and registers the image's checksum.
/// Owns:    a share of the volume's description. The resources of a copy live only during `execute`.
/// Threads: the thread of the backup; volumes are copied one after another.
/// Fails:   transport_connection_error if the target refuses the connection or is lost, other exceptions for
///          everything else. The transport retries; this class doesn't.
class CopyVolume : public IPhase {
public:
    CopyVolume(info::Logger& logger, BackupSession& session,
               const std::shared_ptr<ISnapshotInfo>& snapshotInfo,
               std::shared_ptr<const info::BackupableVolume> volume, const IBackupAttributes& attributes,
               IBackupStatusHandler& status, db::IDataProvider& dataProvider, ICancel& cancel,
               const IConfig& config);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    class Copy;

    void copy(const VolumeSnapshotInfo& snapshot, std::uint32_t type);
    /// A failed snapshot may show newer data of the volume without any read error, so the snapshot is checked
    /// after the last read.
    void transfer(Copy& copy, const VolumeSnapshotInfo& snapshot, std::uint32_t type);
    /// Adds the volume to the database if it is missing, and clears the checksum of its image, which can't be
    /// relied on during the copy: without a checksum the next backup compares every block. Only an
    /// incremental backup keeps the checksum, because the volume's history records the changes that the image
    /// lacks. A database error doesn't fail the copy.
    void invalidateChecksum(std::uint32_t type);
    /// Whether the data read from the snapshot can be relied on. If not, logs an error for the administrator
    /// and sets the status for the appliance.
    bool checkSnapshot(const VolumeSnapshotInfo& snapshot);
    void registerImage();

    info::Logger& logger;
    BackupSession& session;
    const std::shared_ptr<ISnapshotInfo>& snapshotInfo;
    const std::shared_ptr<const info::BackupableVolume> volume;
    const IBackupAttributes& attributes;
    IBackupStatusHandler& status;
    db::IDataProvider& dataProvider;
    ICancel& cancel;
    const IConfig& config;
    const std::string uuid;
};

} // namespace agent::core::backup::phase
