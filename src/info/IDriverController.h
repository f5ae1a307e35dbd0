#pragma once

#include <string>

namespace agent::info {

class BackupableVolume;
class ICowFileSize;
struct DriverDeviceInfo;

/// The snapshot driver: its devices, and the change history that the agent keeps beside the driver's files.
/// Owns:    see DriverController.
/// Threads: one at a time, the backup's; the calls block until the driver has finished.
/// Fails:   by a false result, after a log line; outputs are then untouched.
class IDriverController {
public:
    IDriverController() = default;
    IDriverController(const IDriverController&) = delete;
    IDriverController& operator=(const IDriverController&) = delete;
    IDriverController(IDriverController&&) = delete;
    IDriverController& operator=(IDriverController&&) = delete;
    virtual ~IDriverController() = default;

    /// Whether the running driver is new enough for this agent.
    virtual bool isDriverVersionSupported() = 0;
    /// Takes the volume into a snapshot, from tracking or from nothing.
    virtual bool startSnapshot(const BackupableVolume& volume, ICowFileSize& cowFileSize) = 0;
    /// After a failed backup: drops a device that was not tracked before startSnapshot.
    virtual bool revertOnFailure(const BackupableVolume& volume) = 0;
    /// Ends the snapshot; from here on the driver tracks what changes.
    virtual bool transitionToIncremental(const BackupableVolume& volume) = 0;
    virtual bool getSnapshotPath(const BackupableVolume& volume, std::string& path) = 0;
    virtual bool getDeviceInfo(const BackupableVolume& volume, DriverDeviceInfo& info) = 0;
    /// Writes the incremental history: what is owed to the next backup, or nothing if `zeroFill` is set.
    virtual bool makeHistory(const BackupableVolume& volume, bool zeroFill) = 0;
    /// Adds what earlier backups owe to the record of what has changed since the last one.
    virtual bool rollForward(const BackupableVolume& volume) = 0;
    virtual bool hasIncrementalHistory(const BackupableVolume& volume) = 0;
    virtual void removeIncrementalHistory(const BackupableVolume& volume) = 0;
    virtual bool destroyDevice(const BackupableVolume& volume) = 0;
};

} // namespace agent::info
