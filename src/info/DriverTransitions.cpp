#include "common/Path.h"
#include "info/BackupableVolume.h"
#include "info/DriverController.h"
#include "info/DriverState.h"
#include "info/ICowFileSize.h"
#include "info/VolumeFiles.h"
#include "info/log/Logger.h"

#include <cerrno>
#include <unistd.h>

namespace agent::info {

namespace {

using driver_state::activeSnapshot;
using driver_state::noDevice;
using driver_state::tracking;

/// 0 lets the driver choose.
constexpr std::uint64_t cacheSize = 0;

std::uint32_t asLibraryMinor(std::int32_t minor) {
    return static_cast<std::uint32_t>(minor);
}

/// Volumes with these file systems get no reload script, so tracking ends at a restart.
bool isReloadScriptExempt(const BackupableVolume& volume) {
    return volume.getFileSystem() == "ntfs" || volume.getFileSystem() == "exfat";
}

/// `error` is the value of `errno` after the driver's call.
const Reason& whyNoSnapshot(int error) {
    if (error == ENOSPC) {
        return reason("volume-full");
    }
    return error == EOPNOTSUPP ? reason("snapshot-unsupported") : reason("snapshot-failed");
}

/// A device with an active snapshot has no script: startSnapshot has deleted it.
bool mayHaveReloadScript(std::int32_t state) {
    return state == 0 || state == tracking || state == 4;
}

} // namespace

bool DriverController::startSnapshot(const BackupableVolume& volume, ICowFileSize& cowFileSize) {
    logger.log(level::debug, "start startSnapshot for volume: %s (%s)", volume.getDevice().c_str(),
               volume.getDeviceName().c_str());
    const std::uint64_t cowSizeMiB =
        cowFileSize.getCowFileSizeMiB(logger, volume.getUuid(), volume.getSize(), volume.getFileSystem());
    LogEntry(logger, level::debug) << "syncing...";
    ::sync();
    LogEntry(logger, level::debug) << "finished syncing...";
    if (volume.getMountPoints().empty()) {
        logger.log(level::error, reason("volume-not-mounted"),
                   "Backupable volume for device %s doesn't have a mountpoint.", volume.getDevice().c_str());
        return false;
    }
    DriverDeviceInfo device;
    return getDeviceInfo(volume, device) ? startNextSnapshot(volume, device, cowSizeMiB)
                                         : startFirstSnapshot(volume, cowSizeMiB);
}

bool DriverController::startFirstSnapshot(const BackupableVolume& volume, std::uint64_t cowSizeMiB) {
    const std::string& device = volume.getDevice();
    startingStates[device] = noDevice;
    int minor = 0;
    if (!getUnusedMinor(minor)) {
        return false;
    }
    const std::string cowFile = Path(volume.getMountPoints().front()) / volume_files::firstCow;
    logger.log(level::debug, "calling setup_snapshot for device: %s, cowfile: %s", device.c_str(),
               cowFile.c_str());
    const std::int32_t result = controller->setup_snapshot(asLibraryMinor(minor), device.c_str(),
                                                           cowFile.c_str(), cowSizeMiB, cacheSize);
    const int error = errno;
    if (result == 0) {
        logger.log(level::debug, "setup_snapshot successful for device: %s minor: %d", device.c_str(), minor);
    } else {
        logger.log(level::error, whyNoSnapshot(error),
                   "error from calling setup_snapshot for device: %s minor: %d error: %d errno: %d",
                   device.c_str(), minor, result, error);
    }
    return checkSnapshot(volume, minor, result);
}

bool DriverController::startNextSnapshot(const BackupableVolume& volume, const DriverDeviceInfo& device,
                                         std::uint64_t cowSizeMiB) {
    const std::string& path = volume.getDevice();
    startingStates[path] = device.state;
    std::string cowFile;
    if (!calculateCowFile(device, cowFile)) {
        logger.log(level::error, "Unable to make a new cow file name from existing device: %s", path.c_str());
        return false;
    }
    logger.log(level::info, "startSnapshot found existing driver entry for device %s with minor %d",
               path.c_str(), device.minor);
    if (device.state != tracking) {
        logger.log(
            level::error, reason("snapshot-failed"),
            "Existing driver entry for device %s with minor %d is not incremental tracking, destroying "
            "and returning failure, current state %d",
            path.c_str(), device.minor, device.state);
        destroyExistingDevice(volume);
        return false;
    }
    const std::int32_t result = transitionToSnapshot(
        volume, device.minor, Path(volume.getMountPoints().front()) / cowFile, cowSizeMiB);
    // From here on, a restart must not resume tracking of the device.
    tryDeleteReloadScript([&] { deleteReloadScript(volume); });
    return checkSnapshot(volume, device.minor, result);
}

std::int32_t DriverController::transitionToSnapshot(const BackupableVolume& volume, std::int32_t minor,
                                                    const std::string& cowFile, std::uint64_t cowSizeMiB) {
    const std::string& path = volume.getDevice();
    logger.log(level::debug, "calling transition_snapshot for device: %s, minor: %d, cowfile: %s",
               path.c_str(), minor, cowFile.c_str());
    const std::int32_t result =
        controller->transition_snapshot(asLibraryMinor(minor), cowFile.c_str(), cowSizeMiB);
    const int error = errno;
    if (result == 0) {
        logger.log(level::debug, "transition_snapshot successful for device: %s minor: %d", path.c_str(),
                   minor);
    } else {
        logger.log(level::error, whyNoSnapshot(error),
                   "error from calling transition_snapshot for device: %s minor: %d error: %d errno: %d",
                   path.c_str(), minor, result, error);
        destroyExistingDevice(volume);
    }
    return result;
}

void DriverController::destroyExistingDevice(const BackupableVolume& volume) {
    if (!destroyDevice(volume)) {
        LogEntry(logger, level::error)
            << "Attempting to destroy existing driver entry, unable to destroy existing device.";
    }
}

bool DriverController::checkSnapshot(const BackupableVolume& volume, std::int32_t minor,
                                     std::int32_t result) {
    const std::string& path = volume.getDevice();
    DriverDeviceInfo device;
    if (!getDeviceByMinor(minor, device)) {
        logger.log(level::error, reason("snapshot-failed"),
                   "Unable to find device by minor: %d after setup_snapshot/transition_snapshot: %s", minor,
                   path.c_str());
        return false;
    }
    if (result != 0) {
        logger.log(
            level::error, reason("snapshot-failed"),
            "error on driver device after setup_snapshot/transition_snapshot for device: %s, minor: %d, "
            "error: %d, device error %d",
            path.c_str(), minor, result, device.error);
        return false;
    }
    if (device.state != activeSnapshot) {
        logger.log(
            level::error, reason("snapshot-failed"),
            "driver device is not in active snapshot state after setup_snapshot/transition_snapshot for "
            "device: %s minor: %d, state: %d, device error %d",
            path.c_str(), minor, device.state, device.error);
        return false;
    }
    return true;
}

bool DriverController::transitionToIncremental(const BackupableVolume& volume) {
    const std::string& path = volume.getDevice();
    logger.log(level::debug, "start transitionToIncremental for volume: %s", path.c_str());
    DriverDeviceInfo device;
    if (!getDeviceInfo(volume, device)) {
        logger.log(level::info, "Unable to find existing device %s to transition.", path.c_str());
        return false;
    }
    const int minor = device.minor;
    if (device.state != activeSnapshot) {
        logger.log(level::info,
                   "driver device: %s minor: %d is not in active snapshot state. Current state: %d",
                   path.c_str(), minor, device.state);
        return false;
    }
    if (!isReloadScriptExempt(volume)) {
        tryWriteReloadScript(volume, minor);
    }
    logger.log(level::info, "calling transition_incremental for device: %s minor: %d", path.c_str(), minor);
    const std::int32_t result = controller->transition_incremental(asLibraryMinor(minor));
    const int error = errno;
    if (result == 0) {
        logger.log(level::debug, "transition_incremental successful for device: %s minor: %d", path.c_str(),
                   minor);
        return true;
    }
    logger.log(level::error,
               "error from calling transition_incremental for device: %s minor: %d error: %d errno: %d",
               path.c_str(), minor, result, error);
    reportFailedTransition(volume, minor);
    if (!isReloadScriptExempt(volume)) {
        // The script is for a tracked device, but tracking has failed.
        tryDeleteReloadScript([&] { deleteReloadScript(minor); });
    }
    return false;
}

void DriverController::reportFailedTransition(const BackupableVolume& volume, std::int32_t minor) {
    DriverDeviceInfo device;
    if (!getDeviceByMinor(minor, device)) {
        logger.log(level::error, "Unable to find device by minor %d after transition_incremental failure.",
                   minor);
        return;
    }
    logger.log(level::error,
               "error on driver device after transition_incremental failure for device: %s minor: %d device "
               "error: %d",
               volume.getDevice().c_str(), minor, device.error);
}

bool DriverController::revertOnFailure(const BackupableVolume& volume) {
    const std::string& path = volume.getDevice();
    logger.log(level::debug, "start revertOnFailure for volume: %s", path.c_str());
    const auto found = startingStates.find(path);
    if (found == startingStates.end()) {
        logger.log(level::error, "Could not find starting state for volume: %s", path.c_str());
        return false;
    }
    DriverDeviceInfo device;
    if (!getDeviceInfo(volume, device)) {
        logger.log(level::error, "Could not get device info for volume: %s", path.c_str());
        return false;
    }
    const std::int32_t startingState = found->second;
    startingStates.erase(found);
    if (startingState == tracking) {
        LogEntry(logger, level::debug) << "Had a previous incremental, not destroying device";
        return true;
    }
    LogEntry(logger, level::debug) << "Did not have a previous incremental, destroying";
    return destroyDevice(volume);
}

bool DriverController::destroyDevice(const BackupableVolume& volume) {
    logger.log(level::debug, "start destroyDevice for device: %s", volume.getDevice().c_str());
    DriverDeviceInfo device;
    if (!getDeviceInfo(volume, device)) {
        logger.log(level::error, "Unable to find device for destroy: %s", volume.getDevice().c_str());
        return false;
    }
    const int minor = device.minor;
    devicesByMinor.erase(minor);
    logger.log(level::debug, "destroying minor: %d", minor);
    const std::int32_t result = controller->destroy(asLibraryMinor(minor));
    const int error = errno;
    if (result != 0) {
        logger.log(level::error, "error destroying minor: %d error: %d errno %d", minor, result, error);
        return false;
    }
    if (mayHaveReloadScript(device.state)) {
        // The driver no longer reports the device, so the script is found by the minor from above.
        tryDeleteReloadScript([&] { deleteReloadScript(minor); });
    }
    return true;
}

} // namespace agent::info
