#pragma once

#include <functional>
#include <optional>
#include <string>

namespace agent::info {

/// The paths of the files in which the snapshot driver shows its state.
struct DriverStatusFiles {
    std::string info;    ///< JSON: the version and the devices
    std::string version; ///< a line of text; its directory exists as long as the driver is loaded

    /// Returns the kernel driver's paths, unless the linked control library emulates the driver and has paths
    /// of its own. Such a library updates the files during this call, so call it before every read of a file.
    static DriverStatusFiles ofRunningDriver();
};

using FindDriverStatusFiles = std::function<DriverStatusFiles()>;

/// Returns the whole content of a status file, or nothing if it can't be opened. Throws PosixError if reading
/// it fails, and std::runtime_error if it is larger than 64 MiB.
std::optional<std::string> readDriverStatusFile(const std::string& path);

} // namespace agent::info
