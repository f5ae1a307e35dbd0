#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agent::core::backup {

/// The state of one volume of a backup. A cancelled volume shows as failed.
enum VolumeState : std::uint32_t {
    VOLUME_ACTIVE = 0,
    VOLUME_FAILED = 1,
    VOLUME_FINISHED = 2,
};

/// The state of a whole backup, as shown in lists of backups. A cancelled backup shows as failed.
enum BackupState : std::uint32_t {
    BACKUP_ACTIVE = 0,
    BACKUP_FAILED = 1,
    BACKUP_FINISHED = 3,
};

/// The progress of one volume of a backup.
struct VolumeBackupStatus {
    std::string uuid;
    std::uint32_t state = VOLUME_ACTIVE;
    std::uint32_t backupType = 1; ///< A value of BackupType; INCREMENTAL until the copy sets it.
    std::uint64_t bytesTransferred = 0;
    std::int64_t totalSize = -1; ///< Bytes to send; -1 until known.

    bool operator==(const VolumeBackupStatus&) const = default;
};

/// The progress of a backup at one moment.
struct BackupStatus {
    double elapsedSeconds = 0;
    bool connectionError = false;
    bool snapshotError = false;
    std::vector<VolumeBackupStatus> volumes;
};

} // namespace agent::core::backup
