#pragma once

#include "common/config/Config.h"
#include "common/config/JSONConfigDataProvider.h"
#include "core/backup/SnapshotSessionControl.h"
#include "core/backup/SnapshotTurn.h"
#include "info/BackupableVolume.h"
#include "info/CowFileSize.h"
#include "info/DriverController.h"

#include <memory>
#include <string>

namespace audit {

/// A snapshot of one volume, taken as by an INCREMENTAL, and ended as by one that has failed: what the driver
/// has recorded until then is kept as owed, and the next backup sends it. A volume that isn't tracked isn't
/// tracked afterwards either. Where anything could cost the volume its tracking, no snapshot is taken.
/// Owns:    the turn to take snapshots, and the snapshot, which its end or its destructor ends.
/// Threads: one at a time.
/// Fails:   by std::exception, with what can be done about it. A process that is killed leaves what a killed
///          backup leaves.
class Session {
public:
    using Volume = std::shared_ptr<agent::info::BackupableVolume>;

    Session(agent::info::Logger& logger, Volume given);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    [[nodiscard]] const agent::core::backup::VolumeSnapshotInfo& snapshot() const { return info; }
    /// Whether it is known what has changed since the last backup.
    [[nodiscard]] bool isTracked() const { return wasTracked; }
    /// Why not.
    [[nodiscard]] const std::string& whyUntracked() const { return untracked; }
    /// Where the snapshot is mounted; empty if it isn't.
    [[nodiscard]] std::string mountPoint() const;

    /// Ends the snapshot, and makes sure that it was one until now and that the volume is tracked as before.
    void end();

private:
    void takeTurn();
    void examine();
    void requireHistory() const;
    void requireRoom();
    void start();
    void stop();

    agent::info::Logger& logger;
    Volume volume;
    agent::JSONConfigDataProvider configFile;
    agent::Config config;
    agent::info::CowFileSize cowFileSize;
    agent::info::DriverController driver;
    agent::core::backup::SnapshotSessionControl control;
    agent::core::backup::SnapshotTurn turn;
    agent::core::backup::VolumeSnapshotInfo info;
    bool wasTracked = false;
    std::string untracked;
    bool isStarted = false;
};

} // namespace audit
