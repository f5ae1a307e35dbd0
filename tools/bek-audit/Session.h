#pragma once

#include "common/config/Config.h"
#include "common/config/JSONConfigDataProvider.h"
#include "core/backup/SnapshotLock.h"
#include "core/backup/SnapshotSessionControl.h"
#include "info/BackupableVolume.h"
#include "info/CowFileSize.h"
#include "info/DriverController.h"

#include <memory>
#include <string>

namespace audit {

/// A snapshot of one volume, taken as for an INCREMENTAL and ended as after a failed backup: the changes that
/// the driver has recorded are kept as owed, and the next backup sends them. A volume that wasn't tracked
/// isn't tracked afterwards either. If anything could end the tracking, the constructor throws and takes no
/// snapshot.
/// Owns:    the lock for taking snapshots, and the snapshot, which `end` or the destructor ends.
/// Threads: one at a time.
/// Fails:   throws std::exception, whose text says what to do. A killed process leaves the same behind as a
///          killed backup.
class Session {
public:
    using Volume = std::shared_ptr<agent::info::BackupableVolume>;

    Session(agent::info::Logger& logger, Volume given);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    [[nodiscard]] const agent::core::backup::VolumeSnapshotInfo& snapshot() const { return info; }
    /// Whether the changes since the last backup are known.
    [[nodiscard]] bool isTracked() const { return wasTracked; }
    /// Why isTracked() is false.
    [[nodiscard]] const std::string& whyUntracked() const { return untracked; }
    /// Where the snapshot is mounted; empty if it isn't.
    [[nodiscard]] std::string mountPoint() const;

    /// Ends the snapshot. Throws if the snapshot failed before, or if the tracking has ended.
    void end();

private:
    void lockSnapshots();
    void examine();
    void requireHistory() const;
    void requireSpace();
    void start();
    void stop();

    agent::info::Logger& logger;
    Volume volume;
    agent::JSONConfigDataProvider configFile;
    agent::Config config;
    agent::info::CowFileSize cowFileSize;
    agent::info::DriverController driver;
    agent::core::backup::SnapshotSessionControl control;
    agent::core::backup::SnapshotLock lock;
    agent::core::backup::VolumeSnapshotInfo info;
    bool wasTracked = false;
    std::string untracked;
    bool isStarted = false;
};

} // namespace audit
