#pragma once

#include <functional>
#include <optional>
#include <string>

namespace agent::info {

/// Where the snapshot driver shows its state.
struct DriverStatusFiles {
    std::string info;    ///< JSON: the version and the devices
    std::string version; ///< a line of text; its directory is there as long as the driver is

    /// The kernel's places, unless the linked control library stands in for the driver and names its own.
    /// Such a library looks at its devices and shows what it finds before it answers, so whoever is about to
    /// read a file asks first.
    static DriverStatusFiles ofRunningDriver();
};

using FindDriverStatusFiles = std::function<DriverStatusFiles()>;

/// All of a status file, or nothing if it can't be opened. Throws PosixError if reading it fails, and
/// std::runtime_error for more than any driver has to tell.
std::optional<std::string> readDriverStatusFile(const std::string& path);

} // namespace agent::info
