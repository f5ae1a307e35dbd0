#pragma once

#include "core/backup/VolumeSnapshotInfo.h"
#include "info/log/Logger.h"

#include <memory>
#include <vector>

namespace agent::info {
class BackupableVolume;
class ICowFileSize;
class IDriverController;
class IDriverExtension;
} // namespace agent::info

namespace agent::core::backup {

class IBackupAttributes;
class ISnapshotAttributes;

/// The snapshots of a backup's volumes, all together: taken and mounted before the volumes are copied, ended
/// after it, so that each volume is tracked until the next backup.
/// Owns:    its link to the driver, and the directory below which snapshots are mounted. What the driver
///          keeps outlives the object and the process. Logger and sizes must outlive the object.
/// Threads: one at a time, the backup's; the calls block for as long as the driver takes.
/// Fails:   by std::runtime_error, or what a CoW file that can't be read throws, after a log line. A failed
///          `startSnapshots` leaves volumes in snapshots: `transitionToIncremental` of the same volumes,
///          which does its best for each of them, brings them back.
class SnapshotSessionControl {
public:
    using Volumes = std::vector<std::shared_ptr<info::BackupableVolume>>;

    SnapshotSessionControl(info::Logger& logger, info::ICowFileSize& cowFileSize);
    SnapshotSessionControl(info::Logger& logger, info::ICowFileSize& cowFileSize,
                           std::unique_ptr<info::IDriverController> driver,
                           std::shared_ptr<const info::IDriverExtension> extension);
    SnapshotSessionControl(const SnapshotSessionControl&) = delete;
    SnapshotSessionControl& operator=(const SnapshotSessionControl&) = delete;
    SnapshotSessionControl(SnapshotSessionControl&&) = delete;
    SnapshotSessionControl& operator=(SnapshotSessionControl&&) = delete;
    virtual ~SnapshotSessionControl();

    /// Checks every volume before the first snapshot is taken. The snapshot of a volume that can't be mounted
    /// is no failure.
    virtual VolumeSnapshotInfos startSnapshots(const Volumes& volumes, const IBackupAttributes& attributes,
                                               const ISnapshotAttributes& snapshotAttributes);
    /// `success` says whether the backup has delivered the changes; if not, they are owed to the next one,
    /// and a volume whose debt can't be told loses its device: the next backup compares all of it.
    virtual VolumeSnapshotInfos transitionToIncremental(const Volumes& volumes, bool success);

private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace agent::core::backup
