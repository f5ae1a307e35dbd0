#pragma once

#include "core/backup/VolumeSnapshotInfo.h"

#include <string>

namespace agent::core::backup {

/// The properties of a backup's snapshots, one record for each volume.
/// Owns:    the records.
/// Threads: immutable; safe from any.
/// Fails:   std::invalid_argument for a volume without a snapshot.
class ISnapshotInfo {
public:
    virtual ~ISnapshotInfo() = default;
    [[nodiscard]] virtual VolumeSnapshotInfo getVolumeSnapshotInfo(const std::string& uuid) const = 0;
};

} // namespace agent::core::backup
