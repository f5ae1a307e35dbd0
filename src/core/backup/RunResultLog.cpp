#include "core/backup/RunResultLog.h"

#include "core/backup/BackupType.h"
#include "info/BackupableVolume.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

namespace agent::core::backup {

namespace {

std::string mountPointOf(const std::string& uuid, const RunResultLog::Volumes& volumes) {
    const auto found =
        std::ranges::find_if(volumes, [&](const auto& volume) { return volume->getUuid() == uuid; });
    return found == volumes.end() || (*found)->getMountPoints().empty() ? ""
                                                                        : (*found)->getMountPoints().front();
}

} // namespace

RunResultLog::RunResultLog(info::Logger& logger, std::string backup, const IBackupAttributes& attributes)
    : logger(logger), backup(std::move(backup)), attributes(attributes) {
    for (const std::string& uuid : attributes.getVolumeUUIDs()) {
        requestedTypes.emplace(uuid, attributes.getBackupType(uuid));
    }
}

void RunResultLog::write(const std::string& outcome, const IBackupStatusHandler& status,
                         const Volumes& volumes) const {
    for (const VolumeBackupStatus& volume : status.getVolumeStatuses()) {
        info::LogEntry(logger, info::level::info)
            << "Backup record: " << lineOf(volume, mountPointOf(volume.uuid, volumes), outcome);
    }
}

/// Mount points may contain any bytes, but JSON only UTF-8, so invalid bytes are replaced.
std::string RunResultLog::lineOf(const VolumeBackupStatus& volume, const std::string& mountPoint,
                                 const std::string& outcome) const {
    const nlohmann::json record = {
        {"backup", backup},
        {"volume", volume.uuid},
        {"mountPoint", mountPoint},
        {"asked", backupTypeText(requestedTypes.at(volume.uuid))},
        {"type", backupTypeText(attributes.getBackupType(volume.uuid))},
        {"outcome", outcome},
        {"copiedBytes", volume.bytesTransferred},
        {"totalBytes", volume.totalSize},
        {"seconds", seconds()},
    };
    return record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

double RunResultLog::seconds() const {
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    constexpr double perSecond = 1000;
    return static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count()) /
           perSecond;
}

} // namespace agent::core::backup
