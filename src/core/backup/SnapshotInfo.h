#pragma once

#include "core/backup/ISnapshotInfo.h"

namespace agent::core::backup {

/// See ISnapshotInfo.
class SnapshotInfo : public ISnapshotInfo {
public:
    explicit SnapshotInfo(VolumeSnapshotInfos volumes);

    [[nodiscard]] VolumeSnapshotInfo getVolumeSnapshotInfo(const std::string& uuid) const override;

private:
    VolumeSnapshotInfos volumes;
};

} // namespace agent::core::backup
