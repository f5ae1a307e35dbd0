#pragma once

#include <cstdint>
#include <string>

/// The paths and names that the driver uses. They are fixed, as for a kernel driver.
namespace tolvubd::layout {

/// The captures and the state, which survive a restart of the machine. All of them are on one file system,
/// which can't be captured.
inline constexpr const char* store = "/var/lib/tolvubd";
inline constexpr const char* lock = "/var/lib/tolvubd/lock";
inline constexpr const char* state = "/var/lib/tolvubd/state.json";
inline constexpr const char* captureSuffix = ".img";

/// The boot record: the information that is needed before any file system is mounted. The initramfs has a
/// copy.
inline constexpr const char* bootRecord = "/etc/tolvubd/boot.json";
/// The kernel's boot IDs of the last starts of the machine, oldest first.
inline constexpr const char* bootHistory = "/var/lib/tolvubd/starts";
/// A file beside the CoW files of a volume that device-mapper tracks.
inline constexpr const char* eraFile = ".tolvu.era";
/// The prefix of the UUIDs of all our device-mapper devices.
inline constexpr const char* mapperPrefix = "TOLVU-";

/// The files in this directory don't survive a restart of the machine.
inline constexpr const char* runtime = "/run/tolvubd";
inline constexpr const char* info = "/run/tolvubd/info";
inline constexpr const char* version = "/run/tolvubd/version";
inline constexpr const char* session = "/run/tolvubd/session";

inline constexpr const char* devices = "/dev";
inline constexpr const char* nodePrefix = "tolvu";
/// For a node that isn't ready for use yet, or is about to be removed.
inline constexpr const char* hiddenNodePrefix = ".tolvu";

inline std::string capture(const std::string& snapshot) {
    return std::string(store) + "/" + snapshot + captureSuffix;
}

inline std::string node(std::uint32_t minor) {
    return std::string(devices) + "/" + nodePrefix + std::to_string(minor);
}

} // namespace tolvubd::layout
