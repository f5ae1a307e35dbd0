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

/// Moves one volume to its remote image, by phases of its own, and has the image's checksum taken.
/// Owns:    a share of the volume's description. What a copy needs lives as long as `execute`.
/// Threads: the thread of the backup; volumes are copied one after another.
/// Fails:   transport_connection_error for a target that refuses or is lost, other exceptions for everything
///          else. Nothing is tried again here, that is for the transport.
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
    /// A snapshot that fails may show what programs write now, and no read needs to fail for that: it is
    /// looked at when all has been read.
    void transfer(Copy& copy, const VolumeSnapshotInfo& snapshot, std::uint32_t type);
    /// From here on the volume is known, but its image holds nothing that could be relied on: without a
    /// checksum the next backup compares every block. Only an incremental keeps the checksum, because what
    /// it lacks stands in the volume's history. A database that can't take that doesn't fail the copy.
    void withdrawChecksum(std::uint32_t type);
    /// Whether what has been read of the snapshot can be relied on; if not, says so to the administrator and
    /// to the appliance.
    bool isIntact(const VolumeSnapshotInfo& snapshot);
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
