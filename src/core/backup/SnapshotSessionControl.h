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

/// Controls the snapshots of all volumes of a backup: takes and mounts them before the volumes are copied,
/// and ends them after the copy, so that the driver tracks each volume until the next backup.
/// Owns:    the connection to the driver, and the directory below which snapshots are mounted. The driver's
///          state outlives the object and the process. Logger and CoW file sizes must outlive the object.
/// Threads: only the backup's thread; the calls block for as long as the driver takes.
/// Fails:   by std::runtime_error, or by std::logic_error for a broken CoW file, after a log line. A failed
///          `startSnapshots` may leave volumes in snapshots; a call of `transitionToIncremental` with the
///          same volumes ends as many of them as possible.
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

    /// Checks every volume before it takes the first snapshot. Doesn't fail if a snapshot can't be mounted.
    virtual VolumeSnapshotInfos startSnapshots(const Volumes& volumes, const IBackupAttributes& attributes,
                                               const ISnapshotAttributes& snapshotAttributes);
    /// `success` says whether the backup has sent the changes to the images. If not, the next backup has to
    /// send them, too: they are the volume's debt to its image. A volume whose debt can't be determined loses
    /// its device, so that the next backup compares all of its blocks.
    virtual VolumeSnapshotInfos transitionToIncremental(const Volumes& volumes, bool success);

private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace agent::core::backup
