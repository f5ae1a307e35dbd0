#pragma once

#include "info/BaseController.h"
#include "info/DriverDeviceInfo.h"
#include "info/DriverStatusFiles.h"
#include "info/IDriverController.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

namespace agent::info {

class Logger;

/// Controls the snapshot driver: reads the table of its devices for every query, and moves a volume between
/// no device, snapshot and tracking.
///
/// The sources are split by subject: DriverController.cpp has the table and the queries,
/// DriverTransitions.cpp the changes of a device's state, DriverReloadScripts.cpp the scripts that resume
/// tracking after a restart of the machine, DriverHistory.cpp the incremental history.
///
/// Owns:    the BaseController, and the state that each volume had before startSnapshot. The driver's devices
///          and the CoW files on the volumes outlive this object.
/// Threads: one thread at a time.
/// Fails:   the bool functions log the reason, return false and leave their outputs unchanged. Only
///          writeReloadScript and deleteReloadScript throw: std::runtime_error.
class DriverController : public IDriverController {
public:
    DriverController(Logger& logger, std::unique_ptr<BaseController> controller);
    DriverController(Logger& logger, std::unique_ptr<BaseController> controller,
                     FindDriverStatusFiles findStatusFiles);
    DriverController(const DriverController&) = delete;
    DriverController& operator=(const DriverController&) = delete;
    DriverController(DriverController&&) = delete;
    DriverController& operator=(DriverController&&) = delete;
    ~DriverController() override;

    bool isDriverVersionSupported() override;
    bool startSnapshot(const BackupableVolume& volume, ICowFileSize& cowFileSize) override;
    bool revertOnFailure(const BackupableVolume& volume) override;
    bool transitionToIncremental(const BackupableVolume& volume) override;
    bool getSnapshotPath(const BackupableVolume& volume, std::string& path) override;
    bool getDeviceInfo(const BackupableVolume& volume, DriverDeviceInfo& info) override;
    bool makeHistory(const BackupableVolume& volume, bool zeroFill) override;
    bool rollForward(const BackupableVolume& volume) override;
    bool hasIncrementalHistory(const BackupableVolume& volume) override;
    void removeIncrementalHistory(const BackupableVolume& volume) override;
    bool destroyDevice(const BackupableVolume& volume) override;

    /// Reads the table of devices from the driver. On failure the old table stays, unless the list of devices
    /// itself is malformed: then the table has only the devices before the first malformed one.
    bool Load();
    /// Finds the lowest free minor. If all minors below 255 are taken, the result is 255, free or not.
    bool getUnusedMinor(int& out);
    bool getDeviceByMinor(const int& minor, DriverDeviceInfo& out);

    void writeReloadScript(const BackupableVolume& volume);
    void deleteReloadScript(const BackupableVolume& volume);

    /// A device alternates between two names for its CoW file. `out` is the name that it doesn't use now.
    bool calculateCowFile(const DriverDeviceInfo& device, std::string& out);
    /// Empty for a volume without a mount point.
    [[nodiscard]] std::string getIncrementalHistoryPath(const BackupableVolume& volume) const;

private:
    bool parse(const std::string& text);
    void store(const DriverDeviceInfo& device);

    bool startFirstSnapshot(const BackupableVolume& volume, std::uint64_t cowSizeMiB);
    bool startNextSnapshot(const BackupableVolume& volume, const DriverDeviceInfo& device,
                           std::uint64_t cowSizeMiB);
    std::int32_t transitionToSnapshot(const BackupableVolume& volume, std::int32_t minor,
                                      const std::string& cowFile, std::uint64_t cowSizeMiB);
    void destroyExistingDevice(const BackupableVolume& volume);
    bool checkSnapshot(const BackupableVolume& volume, std::int32_t minor, std::int32_t result);
    void reportFailedTransition(const BackupableVolume& volume, std::int32_t minor);

    void deleteReloadScript(std::int32_t minor);
    /// Only logs a failure: a missing script merely means that tracking is lost at the next restart.
    void tryWriteReloadScript(const BackupableVolume& volume, std::int32_t minor);
    void tryDeleteReloadScript(const std::function<void()>& deletion);

    Logger& logger;
    std::unique_ptr<BaseController> controller;
    std::unordered_map<std::int32_t, DriverDeviceInfo> devicesByMinor;
    std::string driverVersion;
    std::unordered_map<std::string, DriverDeviceInfo> devicesByBlockDevice;
    /// The state that each volume had before startSnapshot, by device path. Load doesn't clear it.
    std::unordered_map<std::string, std::int32_t> startingStates;
    FindDriverStatusFiles findStatusFiles;
};

} // namespace agent::info
