#pragma once

#include <string>

namespace agent::info {

class BackupableVolume;
class ICowFileSize;
struct DriverDeviceInfo;

/// Controls the snapshot driver: its devices, and the incremental history, a file that the agent keeps next
/// to the driver's CoW files. It marks the blocks that earlier backups should have transferred but didn't.
/// Owns:    the connection to the driver. The driver's devices and files outlive this object.
/// Threads: one thread at a time; every call blocks until the driver has finished.
/// Fails:   a false result means failure, with the reason logged and the outputs unchanged. Only the result
///          of `hasIncrementalHistory` doesn't report failures.
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
    /// Takes a snapshot of the volume. The driver must track the volume, or have no device for it.
    virtual bool startSnapshot(const BackupableVolume& volume, ICowFileSize& cowFileSize) = 0;
    /// Call this after a failed backup. Destroys the device unless the driver tracked the volume before
    /// startSnapshot.
    virtual bool revertOnFailure(const BackupableVolume& volume) = 0;
    /// Ends the snapshot; from then on the driver records which blocks change.
    virtual bool transitionToIncremental(const BackupableVolume& volume) = 0;
    virtual bool getSnapshotPath(const BackupableVolume& volume, std::string& path) = 0;
    virtual bool getDeviceInfo(const BackupableVolume& volume, DriverDeviceInfo& info) = 0;
    /// Writes the incremental history: the blocks that the next backup must transfer too, or no blocks at all
    /// if `zeroFill` is set.
    virtual bool makeHistory(const BackupableVolume& volume, bool zeroFill) = 0;
    /// Merges the incremental history into the CoW file that records the changes since the last backup.
    virtual bool rollForward(const BackupableVolume& volume) = 0;
    virtual bool hasIncrementalHistory(const BackupableVolume& volume) = 0;
    virtual void removeIncrementalHistory(const BackupableVolume& volume) = 0;
    virtual bool destroyDevice(const BackupableVolume& volume) = 0;
};

} // namespace agent::info
