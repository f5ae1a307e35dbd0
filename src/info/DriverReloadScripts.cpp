#include "common/BaseDirectories.h"
#include "common/File.h"
#include "info/BackupableVolume.h"
#include "info/DriverController.h"
#include "info/log/Logger.h"
#include "os/FileDescriptor.h"
#include "os/Transfer.h"

#include <exception>
#include <fcntl.h>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace agent::info {

namespace {

constexpr mode_t scriptMode = 0700;

std::string scriptPath(std::int32_t minor) {
    const std::string name = "reload_" + std::to_string(minor);
    return (dir::base() / name).str();
}

/// Root's shell runs the script, so a name from a volume or from the driver must be one plain word.
bool isPlainWord(std::string_view text) {
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._/-";
    return !text.empty() && text.find_first_not_of(plain) == std::string_view::npos;
}

std::string scriptText(const BackupableVolume& volume, const DriverDeviceInfo& device) {
    if (!isPlainWord(volume.getUuid()) || !isPlainWord(device.cow_file)) {
        throw std::runtime_error("A name is not fit for an incremental reload script");
    }
    const std::string minor = std::to_string(device.minor);
    return "#!/bin/sh\n\necho \"Reloading incremental - " + minor +
           " ...\" > /dev/kmsg\n/usr/bin/tolvuctl reload-incremental /dev/disk/by-uuid/" + volume.getUuid() +
           " " + device.cow_file + " " + minor + "\n";
}

void writeScript(const std::string& path, const std::string& text) {
    const os::FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, scriptMode));
    if (!file) {
        throw std::runtime_error("Failed to open handle to incremental reload script");
    }
    if (!os::writeAll(file.get(), text)) {
        ::unlink(path.c_str()); // half a script is worse than none
        throw std::runtime_error("Failed to write incremental reload script");
    }
}

} // namespace

void DriverController::writeReloadScript(const BackupableVolume& volume) {
    DriverDeviceInfo device;
    if (!getDeviceInfo(volume, device)) {
        throw std::runtime_error("Failed to get device minor");
    }
    const std::string path = scriptPath(device.minor);
    writeScript(path, scriptText(volume, device));
    // open() doesn't change the mode of an existing file.
    if (::chmod(path.c_str(), scriptMode) != 0) {
        throw std::runtime_error("Failed to set permissions on incremental reload script");
    }
    file::sync(path);
    file::sync(dir::base());
}

void DriverController::tryWriteReloadScript(const BackupableVolume& volume, std::int32_t minor) {
    logger.log(level::debug, "writing incremental reload script for dev %s minor %d",
               volume.getDevice().c_str(), minor);
    try {
        writeReloadScript(volume);
    } catch (const std::exception& error) {
        logger.log(level::warning, "Exception occurred writing out incremental reload scripts: %s",
                   error.what());
    } catch (...) {
        LogEntry(logger, level::warning) << "Unexpected error occurred writing incremental reload scripts";
    }
}

void DriverController::deleteReloadScript(const BackupableVolume& volume) {
    DriverDeviceInfo device;
    if (!getDeviceInfo(volume, device)) {
        throw std::runtime_error("Failed to get device minor");
    }
    deleteReloadScript(device.minor);
}

/// Syncs the directory, because a script that reappears after a power failure would make the driver track a
/// device that must no longer be tracked.
void DriverController::deleteReloadScript(std::int32_t minor) {
    if (::unlink(scriptPath(minor).c_str()) != 0) {
        throw std::runtime_error("Failed to unlink file");
    }
    file::sync(dir::base());
}

void DriverController::tryDeleteReloadScript(const std::function<void()>& deletion) {
    LogEntry(logger, level::debug) << "deleting incremental reload script";
    try {
        deletion();
    } catch (const std::exception& error) {
        logger.log(level::warning, "Failed to remove incremental reload script: %s", error.what());
    } catch (...) {
        LogEntry(logger, level::error)
            << "Unexpected error occurred while trying to delete incremental reload script";
    }
}

} // namespace agent::info
