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

/// The snapshot driver as the agent drives it: a table of its devices, read anew by every query, and the
/// steps between no device, snapshot and tracking.
///
/// The sources are split by subject: DriverController.cpp has table and queries, DriverTransitions.cpp has
/// what changes a device's state, DriverReloadScripts.cpp the scripts that give tracking back after a
/// restart, DriverHistory.cpp the record of changed blocks.
///
/// Owns:    the library's calls, and the state in which startSnapshot found each volume. The driver keeps its
///          devices, and the CoW files stay on the volumes, when this object goes.
/// Threads: one at a time.
/// Fails:   see IDriverController; only the reload scripts' members throw, std::runtime_error.
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

    /// Reads the table. On failure it stays as it was, unless the list of devices itself is at fault.
    bool Load();
    /// The lowest free minor; 255 if all below are taken, without a look whether that one is free.
    bool getUnusedMinor(int& out);
    bool getDeviceByMinor(const int& minor, DriverDeviceInfo& out);

    void writeReloadScript(const BackupableVolume& volume);
    void deleteReloadScript(const BackupableVolume& volume);

    /// Two names take turns: the one that the device does not use now.
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
    /// A missing script only costs tracking at the next restart: what goes wrong is logged, and that is all.
    void tryWriteReloadScript(const BackupableVolume& volume, std::int32_t minor);
    void tryDeleteReloadScript(const std::function<void()>& deletion);

    Logger& logger;
    std::unique_ptr<BaseController> controller;
    std::unordered_map<std::int32_t, DriverDeviceInfo> devicesByMinor;
    std::string driverVersion;
    std::unordered_map<std::string, DriverDeviceInfo> devicesByBlockDevice;
    /// By device path: the state in which startSnapshot found the volume. Outlives the tables.
    std::unordered_map<std::string, std::int32_t> startingStates;
    FindDriverStatusFiles findStatusFiles;
};

} // namespace agent::info
