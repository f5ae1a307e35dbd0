#pragma once

#include <cstdint>
#include <string>

/// Where things are. All of it is fixed, as it is for a kernel driver.
namespace tolvubd::layout {

/// Survives a restart of the machine: captures and what is known of them. Only one file system of the machine
/// can hold it, and that one can't be snapshotted.
inline constexpr const char* store = "/var/lib/tolvubd";
inline constexpr const char* lock = "/var/lib/tolvubd/lock";
inline constexpr const char* state = "/var/lib/tolvubd/state.json";
inline constexpr const char* captureSuffix = ".img";

/// What has to be known before any file system is mounted; a copy is in the initramfs.
inline constexpr const char* bootRecord = "/etc/tolvubd/boot.json";
/// The kernel's names of the last starts of the machine, oldest first.
inline constexpr const char* starts = "/var/lib/tolvubd/starts";
/// Beside the CoW files of a volume that device-mapper tracks.
inline constexpr const char* eraFile = ".tolvu.era";
/// How the UUIDs of all our device-mapper devices begin.
inline constexpr const char* mapperPrefix = "TOLVU-";

/// Gone after a restart of the machine.
inline constexpr const char* runtime = "/run/tolvubd";
inline constexpr const char* info = "/run/tolvubd/info";
inline constexpr const char* version = "/run/tolvubd/version";
inline constexpr const char* session = "/run/tolvubd/session";

inline constexpr const char* devices = "/dev";
inline constexpr const char* nodePrefix = "tolvu";
/// A node that isn't fit for use yet, or no longer.
inline constexpr const char* hiddenNodePrefix = ".tolvu";

inline std::string capture(const std::string& snapshot) {
    return std::string(store) + "/" + snapshot + captureSuffix;
}

inline std::string node(std::uint32_t minor) {
    return std::string(devices) + "/" + nodePrefix + std::to_string(minor);
}

} // namespace tolvubd::layout
