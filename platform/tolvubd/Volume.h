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
    std::vector<ProcessName> servers;     ///< FUSE server processes; empty for a file system of the kernel
};

/// Throws ENOTBLK for a path that isn't a block device, ENODEV for a device that isn't mounted, EBUSY when
/// its FUSE server is stopped, and EDEADLK when the server may be waiting for this process. Doesn't access
/// the mount points.
Volume findVolume(const std::string& blockDevice);

/// A path on a volume, split after the mount point.
struct PathOnVolume {
    std::string mountPoint;
    std::string relative; ///< with a leading slash

    [[nodiscard]] std::string path() const { return (mountPoint == "/" ? "" : mountPoint) + relative; }
};

/// Throws EXDEV for a path on another file system. The last component need not exist.
PathOnVolume locate(const Volume& volume, const std::string& path);

/// The mount points of a device, from a text in the form of /proc/self/mountinfo.
std::vector<std::string> mountPointsIn(const std::string& mountInfo, dev_t device);
/// The type of the file system that is mounted from a device; empty if none is.
std::string fileSystemIn(const std::string& mountInfo, dev_t device);
/// Whether the file system of a device is served by a FUSE process.
bool isServedIn(const std::string& mountInfo, dev_t device);
/// Whether a file system of the device is writable, even if some of its mounts are read-only.
bool isWritableIn(const std::string& mountInfo, dev_t device);

/// The free bytes on the file system of `path`, without those reserved for root.
std::uint64_t freeSpace(const std::string& path);
/// The bytes in use on the file system of `path`.
std::uint64_t usedSpace(const std::string& path);

} // namespace tolvubd
