#pragma once

#include "core/block/IncrementalBitmapInfo.h"

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace agent::core::backup {

/// What the later steps of a backup need to know about one volume's snapshot.
class VolumeSnapshotInfo {
public:
    VolumeSnapshotInfo() = default;
    VolumeSnapshotInfo(const VolumeSnapshotInfo&) = default;
    VolumeSnapshotInfo& operator=(const VolumeSnapshotInfo&) = default;
    VolumeSnapshotInfo(VolumeSnapshotInfo&&) = default;
    VolumeSnapshotInfo& operator=(VolumeSnapshotInfo&&) = default;
    virtual ~VolumeSnapshotInfo() = default;

    std::string snapshotPath;     ///< /dev/tolvu<minor>, empty if there is no device
    std::uint64_t volumeSize = 0; ///< whole blocks only, in bytes
    std::vector<std::string>
        excludedFiles; ///< in the mounted snapshot; their content is of no use to anybody
    /// At the start of a snapshot: the record of changes since the last backup can be used. At its end: the
    /// volume is tracked, so that the next backup can be incremental.
    bool incrementalPreserved = false;
    block::IncrementalBitmapInfo incrementalBitmap;
    /// To be asked when all has been read: 0 if the snapshot has shown one moment until now, else a value of
    /// `errno`. Without it, nobody can tell.
    std::function<int()> check;
};

/// By the volumes' UUIDs.
using VolumeSnapshotInfos = std::unordered_map<std::string, VolumeSnapshotInfo>;

} // namespace agent::core::backup
