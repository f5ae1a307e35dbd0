#include "core/backup/SnapshotInfo.h"

#include <stdexcept>
#include <utility>

namespace agent::core::backup {

SnapshotInfo::SnapshotInfo(VolumeSnapshotInfos volumes) : volumes(std::move(volumes)) {}

VolumeSnapshotInfo SnapshotInfo::getVolumeSnapshotInfo(const std::string& uuid) const {
    const auto found = volumes.find(uuid);
    if (found == volumes.end()) {
        throw std::invalid_argument(
            "A VolumeSnapshotInfo with UUID " + uuid +
            " does not exist in the volume snapshot info map. This should never happen!");
    }
    return found->second;
}

} // namespace agent::core::backup
