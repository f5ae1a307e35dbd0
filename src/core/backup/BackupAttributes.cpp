#include "core/backup/BackupAttributes.h"

#include "core/backup/BackupType.h"

#include <stdexcept>
#include <utility>

namespace agent::core::backup {

namespace {

/// The record of a volume; `volumes` may be const or not.
template <typename Map>
auto& find(Map& volumes, const std::string& uuid) {
    const auto found = volumes.find(uuid);
    if (found == volumes.end()) {
        throw std::invalid_argument(
            "A volume with ID " + uuid +
            " does not exist in the volume attributes map. This should never happen!");
    }
    return found->second;
}

} // namespace

BackupAttributes::BackupAttributes(std::unordered_map<std::string, VolumeAttributes> volumes)
    : volumes(std::move(volumes)) {}

bool BackupAttributes::isIncremental(const std::string& uuid) const {
    return getBackupType(uuid) == INCREMENTAL;
}

std::vector<std::string> BackupAttributes::getVolumeUUIDs() const {
    std::vector<std::string> uuids;
    uuids.reserve(volumes.size());
    for (const auto& [uuid, attributes] : volumes) {
        uuids.push_back(uuid);
    }
    return uuids;
}

std::uint32_t BackupAttributes::getBackupType(const std::string& uuid) const {
    return find(volumes, uuid).backupType;
}

void BackupAttributes::setBackupType(const std::string& uuid, std::uint32_t type) {
    find(volumes, uuid).backupType = type;
}

std::vector<VolumeScript> BackupAttributes::getScripts(const std::string& uuid) const {
    return find(volumes, uuid).scripts;
}

} // namespace agent::core::backup
