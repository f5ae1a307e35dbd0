#pragma once

#include "core/backup/BackupStatus.h"

#include <cstdint>
#include <string>
#include <vector>

namespace agent::core::backup {

/// The live record of a backup's progress.
/// Owns:    the progress values of all volumes.
/// Threads: the setters on the thread of the backup; everything else from any thread at any time.
/// Fails:   a volume that is not part of the backup is logged and ignored.
class IBackupStatusHandler {
public:
    virtual ~IBackupStatusHandler() = default;
    virtual void getStatus(BackupStatus& out) const = 0;
    /// True while a volume is neither finished nor failed.
    [[nodiscard]] virtual bool isActive() const = 0;
    /// True if every volume is finished, and if there are no volumes.
    [[nodiscard]] virtual bool isFinished() const = 0;
    /// Whole seconds since the backup was created.
    [[nodiscard]] virtual double getElapsedSeconds() const = 0;
    virtual void setConnectionError() = 0;
    [[nodiscard]] virtual bool hasConnectionError() const = 0;
    virtual void setSnapshotError() = 0;
    [[nodiscard]] virtual bool hasSnapshotError() const = 0;
    /// `state` is a value of VolumeState.
    virtual void setVolumeState(const std::string& uuid, std::uint32_t state) = 0;
    /// `type` is a value of BackupType.
    virtual void setVolumeBackupType(const std::string& uuid, std::uint32_t type) = 0;
    virtual void setVolumeBytesTransferred(const std::string& uuid, std::uint64_t bytes) = 0;
    virtual void setVolumeTotalSize(const std::string& uuid, std::int64_t bytes) = 0;
    [[nodiscard]] virtual std::vector<VolumeBackupStatus> getVolumeStatuses() const = 0;
    /// Marks finished volumes as failed, too, because a backup that lacks a volume counts as failed.
    virtual void setAllVolumesFailed() = 0;
};

} // namespace agent::core::backup
