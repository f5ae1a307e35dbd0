#pragma once

#include "core/backup/VolumeSnapshotInfo.h"

#include <string>

namespace agent::core::backup {

/// What is known of the snapshots of a backup.
/// Owns:    the records.
/// Threads: never changes; safe from any.
/// Fails:   std::invalid_argument for a volume without a snapshot.
class ISnapshotInfo {
public:
    virtual ~ISnapshotInfo() = default;
    [[nodiscard]] virtual VolumeSnapshotInfo getVolumeSnapshotInfo(const std::string& uuid) const = 0;
};

} // namespace agent::core::backup
