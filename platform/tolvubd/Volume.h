#pragma once

#include "Process.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tolvubd {

/// A block device with a mounted file system.
struct Volume {
    std::string path; ///< of the device, with symbolic links resolved
    dev_t number = 0;
    std::uint64_t size = 0;
    std::uint32_t sectorSize = 0;
    std::vector<std::string> mountPoints; ///< as this process sees them, in the order of mounting
    std::string fileSystem;               ///< the kernel's name of its type
    std::vector<ProcessName> servers;     ///< which are its file system; none where that is the kernel
};

/// ENOTBLK for what isn't a block device, ENODEV for one that isn't mounted. EBUSY for one whose file system
/// is a process that is stopped, EDEADLK where that process may wait for this one. Touches no mount.
Volume findVolume(const std::string& blockDevice);

/// A path on a volume, split where the file system begins.
struct PathOnVolume {
    std::string mountPoint;
    std::string relative; ///< with a leading slash

    [[nodiscard]] std::string path() const { return (mountPoint == "/" ? "" : mountPoint) + relative; }
};

/// EXDEV for a path on another file system. The last part need not exist.
PathOnVolume locate(const Volume& volume, const std::string& path);

/// The mount points of a device, from a text in the form of /proc/self/mountinfo.
std::vector<std::string> mountPointsIn(const std::string& mountInfo, dev_t device);
/// The type of the file system that is mounted from a device; empty if none is.
std::string fileSystemIn(const std::string& mountInfo, dev_t device);
/// Whether the file system of a device is a process.
bool isServedIn(const std::string& mountInfo, dev_t device);
/// Whether a file system of the device takes writes, by whatever mount.
bool isWritableIn(const std::string& mountInfo, dev_t device);

/// The bytes that an ordinary file can still get on the file system of `path`.
std::uint64_t freeSpace(const std::string& path);
/// The bytes in use on it.
std::uint64_t usedSpace(const std::string& path);

} // namespace tolvubd
