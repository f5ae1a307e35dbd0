#include "core/backup/BackupStatusHandler.h"

#include <algorithm>
#include <utility>

namespace agent::core::backup {

BackupStatusHandler::BackupStatusHandler(info::Logger& logger, const std::vector<std::string>& volumeUUIDs,
                                         Clock clock)
    : logger(logger),
      clock(std::move(clock)),
      startWallClock(this->clock()),
      volumes(volumeUUIDs.begin(), volumeUUIDs.end()) {}

void BackupStatusHandler::getStatus(BackupStatus& out) const {
    out.elapsedSeconds = getElapsedSeconds();
    out.connectionError = hasConnectionError();
    out.snapshotError = hasSnapshotError();
    out.volumes = getVolumeStatuses();
}

bool BackupStatusHandler::isActive() const {
    return std::any_of(volumes.begin(), volumes.end(),
                       [](const Volume& volume) { return volume.state == VOLUME_ACTIVE; });
}

bool BackupStatusHandler::isFinished() const {
    return std::all_of(volumes.begin(), volumes.end(),
                       [](const Volume& volume) { return volume.state == VOLUME_FINISHED; });
}

double BackupStatusHandler::getElapsedSeconds() const {
    const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(clock() - startWallClock);
    return static_cast<double>(elapsed.count());
}

void BackupStatusHandler::setConnectionError() {
    connectionError = true;
}

bool BackupStatusHandler::hasConnectionError() const {
    return connectionError;
}

void BackupStatusHandler::setSnapshotError() {
    snapshotError = true;
}

bool BackupStatusHandler::hasSnapshotError() const {
    return snapshotError;
}

void BackupStatusHandler::setVolumeState(const std::string& uuid, std::uint32_t state) {
    if (Volume* const volume = find(uuid)) {
        volume->state = state;
    }
}

void BackupStatusHandler::setVolumeBackupType(const std::string& uuid, std::uint32_t type) {
    if (Volume* const volume = find(uuid)) {
        volume->backupType = type;
    }
}

void BackupStatusHandler::setVolumeBytesTransferred(const std::string& uuid, std::uint64_t bytes) {
    if (Volume* const volume = find(uuid)) {
        volume->bytesTransferred = bytes;
    }
}

void BackupStatusHandler::setVolumeTotalSize(const std::string& uuid, std::int64_t bytes) {
    if (Volume* const volume = find(uuid)) {
        volume->totalSize = bytes;
    }
}

std::vector<VolumeBackupStatus> BackupStatusHandler::getVolumeStatuses() const {
    std::vector<VolumeBackupStatus> statuses;
    statuses.reserve(volumes.size());
    for (const Volume& volume : volumes) {
        statuses.push_back(
            {volume.uuid, volume.state, volume.backupType, volume.bytesTransferred, volume.totalSize});
    }
    return statuses;
}

void BackupStatusHandler::setAllVolumesFailed() {
    for (const Volume& volume : volumes) {
        logger.log(info::level::info, "Setting volume %s to failed.", volume.uuid.c_str());
        setVolumeState(volume.uuid, VOLUME_FAILED);
    }
}

BackupStatusHandler::Volume* BackupStatusHandler::find(const std::string& uuid) {
    const auto found = std::find_if(volumes.begin(), volumes.end(),
                                    [&](const Volume& volume) { return volume.uuid == uuid; });
    if (found == volumes.end()) {
        logger.log(info::level::error, "Could not find status for %s", uuid.c_str());
        return nullptr;
    }
    return &*found;
}

} // namespace agent::core::backup
