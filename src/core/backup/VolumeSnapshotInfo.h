#pragma once

#include "core/block/IncrementalBitmapInfo.h"

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace agent::core::backup {

/// The properties of one volume's snapshot that the later phases of a backup need.
/// Owns:    its values; `check` needs the snapshot control that has made it.
/// Threads: the thread of the backup.
/// Fails:   never.
class VolumeSnapshotInfo {
public:
    VolumeSnapshotInfo() = default;
    VolumeSnapshotInfo(const VolumeSnapshotInfo&) = default;
    VolumeSnapshotInfo& operator=(const VolumeSnapshotInfo&) = default;
    VolumeSnapshotInfo(VolumeSnapshotInfo&&) = default;
    VolumeSnapshotInfo& operator=(VolumeSnapshotInfo&&) = default;
    virtual ~VolumeSnapshotInfo() = default;

    std::string snapshotPath;     ///< /dev/tolvu<minor>, empty if there is no device
    std::uint64_t volumeSize = 0; ///< in bytes, whole blocks only
    std::vector<std::string>
        excludedFiles; ///< paths in the mounted snapshot; not copied, because their content is useless
    /// At the start of a snapshot: whether the record of the changes since the last backup is usable. At its
    /// end: whether the volume is tracked, so that the next backup can be incremental.
    bool incrementalPreserved = false;
    block::IncrementalBitmapInfo incrementalBitmap;
    /// To be called after the last read: returns 0 if the snapshot has shown one point in time until now,
    /// else an errno value. If empty, the snapshot can't be checked.
    std::function<int()> check;
};

/// Keyed by volume UUID.
using VolumeSnapshotInfos = std::unordered_map<std::string, VolumeSnapshotInfo>;

} // namespace agent::core::backup
