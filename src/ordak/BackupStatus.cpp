#include "ordak/BackupStatus.h"

#include "core/backup/BackupType.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <vector>

namespace agent::ordak {

namespace {

using core::backup::VolumeBackupStatus;
using nlohmann::json;
using Volumes = std::vector<VolumeBackupStatus>;

bool isActive(const VolumeBackupStatus& volume) {
    return volume.state == core::backup::VOLUME_ACTIVE;
}

bool isFinished(const VolumeBackupStatus& volume) {
    return volume.state == core::backup::VOLUME_FINISHED;
}

const char* stateText(const VolumeBackupStatus& volume) {
    if (isActive(volume)) {
        return "active";
    }
    return isFinished(volume) ? "finished" : "failed";
}

const char* typeText(std::uint32_t type) {
    switch (type) {
    case core::backup::INCREMENTAL:
        return "incremental";
    case core::backup::DIFFERENTIAL_MERGE:
        return "differential";
    default:
        return "full";
    }
}

const char* overallText(const Volumes& volumes) {
    if (std::any_of(volumes.begin(), volumes.end(), isActive)) {
        return "active";
    }
    return std::all_of(volumes.begin(), volumes.end(), isFinished) ? "finished" : "failed";
}

/// Null if there are no volumes.
json detailsOf(const Volumes& volumes) {
    json details;
    for (const VolumeBackupStatus& volume : volumes) {
        details.push_back({{"volume", volume.uuid},
                           {"status", stateText(volume)},
                           {"type", typeText(volume.backupType)},
                           {"transfer",
                            {{"bytesTransferred", volume.bytesTransferred},
                             // The appliance expects an unsigned number: a size that isn't known yet (-1)
                             // becomes the largest one.
                             {"totalSize", static_cast<std::uint64_t>(volume.totalSize)}}}});
    }
    return details;
}

} // namespace

APIResponse BackupStatus::operator()(const std::string& /*body*/, const APIExtendedData& request) {
    backups.ping(request.urlData);
    core::backup::BackupStatus status;
    backups.getStatus(request.urlData, status);
    return makeJsonResponse({{"elapsedTime", static_cast<std::int64_t>(status.elapsedSeconds)},
                             {"connection_error", status.connectionError},
                             {"snapshot_error", status.snapshotError},
                             {"details", detailsOf(status.volumes)},
                             {"status", overallText(status.volumes)}},
                            200);
}

} // namespace agent::ordak
