#pragma once

#include "core/backup/BackupType.h"
#include "core/backup/IBackupStatusHandler.h"
#include "info/log/Logger.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <utility>

namespace agent::core::backup {

/// See IBackupStatusHandler. There is no lock: every value is a separate atomic, and the vector never changes
/// its size. A reader thus sees each value intact, but the values may be from different moments. The elapsed
/// time comes from the wall clock: it jumps when the clock is set, and is negative if the clock is set back
/// to before the backup was created.
class BackupStatusHandler : public IBackupStatusHandler {
public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;

    BackupStatusHandler(info::Logger& logger, const std::vector<std::string>& volumeUUIDs,
                        Clock clock = &std::chrono::system_clock::now);

    void getStatus(BackupStatus& out) const override;
    [[nodiscard]] bool isActive() const override;
    [[nodiscard]] bool isFinished() const override;
    [[nodiscard]] double getElapsedSeconds() const override;
    void setConnectionError() override;
    [[nodiscard]] bool hasConnectionError() const override;
    void setSnapshotError() override;
    [[nodiscard]] bool hasSnapshotError() const override;
    void setVolumeState(const std::string& uuid, std::uint32_t state) override;
    void setVolumeBackupType(const std::string& uuid, std::uint32_t type) override;
    void setVolumeBytesTransferred(const std::string& uuid, std::uint64_t bytes) override;
    void setVolumeTotalSize(const std::string& uuid, std::int64_t bytes) override;
    [[nodiscard]] std::vector<VolumeBackupStatus> getVolumeStatuses() const override;
    void setAllVolumesFailed() override;

private:
    /// The fields of VolumeBackupStatus, as atomics.
    struct Volume {
        explicit Volume(std::string uuid) : uuid(std::move(uuid)) {}

        const std::string uuid;
        std::atomic<std::uint32_t> state = VOLUME_ACTIVE;
        std::atomic<std::uint32_t> backupType = INCREMENTAL;
        std::atomic<std::uint64_t> bytesTransferred = 0;
        std::atomic<std::int64_t> totalSize = -1;
    };

    /// Null, with a log line, for a volume that is not part of the backup.
    Volume* find(const std::string& uuid);

    info::Logger& logger;
    const Clock clock;
    const std::chrono::system_clock::time_point startWallClock;
    std::atomic<bool> connectionError = false;
    std::atomic<bool> snapshotError = false;
    std::vector<Volume> volumes; // in the order in which the UUIDs were given
};

} // namespace agent::core::backup
