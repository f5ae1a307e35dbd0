#include "Volume.h"

#include "AtomicFile.h"
#include "Failure.h"
#include "FileAccess.h"
#include "capture/StoppedServer.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <linux/fs.h>
#include <optional>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

namespace tolvubd {

namespace {

std::string resolve(const std::string& path) {
    std::error_code error;
    const auto resolved = std::filesystem::canonical(path, error);
    if (error) {
        fail(error.value(), "resolve " + path);
    }
    return resolved;
}

struct stat statusOf(const std::string& path) {
    struct stat status{};
    checked(::stat(path.c_str(), &status), "look at " + path);
    return status;
}

struct statvfs spaceOf(const std::string& path) {
    struct statvfs space{};
    checked(::statvfs(path.c_str(), &space), "look at the file system of " + path);
    return space;
}

/// The kernel's type name of FUSE file systems on block devices; a subtype may follow after a dot.
constexpr const char* servedType = "fuseblk";

bool isOctal(char c) {
    return c >= '0' && c <= '7';
}

/// mountinfo shows blanks and some other characters as a backslash and three octal digits.
std::string unescape(const std::string& text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() && isOctal(text[i + 1]) && isOctal(text[i + 2]) &&
            isOctal(text[i + 3])) {
            const int value = (text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0');
            plain += static_cast<char>(value);
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

struct Mount {
    std::string number; ///< of the device, as two numbers
    std::string mountPoint;
    std::string fileSystem;
    std::string options; ///< of the file system, not of this mount
};

/// Parses a line of /proc/self/mountinfo. Any number of optional fields and a dash follow the mount point.
std::optional<Mount> parseMount(const std::string& line) {
    std::istringstream fields(line);
    Mount mount;
    std::string word; // the mount's ID, then its parent's; later its root
    if (!(fields >> word >> word >> mount.number >> word >> mount.mountPoint)) {
        return std::nullopt;
    }
    mount.mountPoint = unescape(mount.mountPoint);
    while (fields >> word && word != "-") {
    }
    fields >> mount.fileSystem >> word >> mount.options; // the word between them is the source
    return mount;
}

std::vector<Mount> mountsOf(const std::string& mountInfo, dev_t device) {
    const std::string wanted = std::to_string(major(device)) + ":" + std::to_string(minor(device));
    std::vector<Mount> found;
    std::istringstream lines(mountInfo);
    for (std::string line; std::getline(lines, line);) {
        if (const auto mount = parseMount(line); mount && mount->number == wanted) {
            found.push_back(*mount);
        }
    }
    return found;
}

bool isBelow(const std::string& path, const std::string& directory) {
    return directory == "/" ||
           (path.starts_with(directory) && path.size() > directory.size() && path[directory.size()] == '/');
}

} // namespace

Volume findVolume(const std::string& blockDevice) {
    Volume volume;
    volume.path = resolve(blockDevice);
    const struct stat status = statusOf(volume.path);
    if (!S_ISBLK(status.st_mode)) {
        fail(ENOTBLK, volume.path);
    }
    volume.number = status.st_rdev;
    const os::FileDescriptor device = openFile(volume.path, O_RDONLY);
    int sectorSize = 0;
    checked(::ioctl(device.get(), BLKGETSIZE64, &volume.size), "size of " + volume.path);
    checked(::ioctl(device.get(), BLKSSZGET, &sectorSize), "sector size of " + volume.path);
    volume.sectorSize = static_cast<std::uint32_t>(sectorSize);
    // From here on, only /proc is asked: a system call on the mount points would wait while the volume is
    // held.
    const std::string mounts = readToEnd("/proc/self/mountinfo");
    volume.mountPoints = mountPointsIn(mounts, volume.number);
    if (volume.mountPoints.empty()) {
        fail(ENODEV, volume.path + " is not mounted");
    }
    volume.fileSystem = fileSystemIn(mounts, volume.number);
    if (isServedIn(mounts, volume.number)) {
        volume.servers = findServers(volume.number);
        requireAnswering(volume.servers);
    }
    return volume;
}

PathOnVolume locate(const Volume& volume, const std::string& path) {
    if (!path.starts_with('/') || path.ends_with('/')) {
        fail(EINVAL, path);
    }
    if (statusOf(directoryOf(path)).st_dev != volume.number) {
        fail(EXDEV, path + " is not on " + volume.path);
    }
    PathOnVolume located;
    for (const std::string& mountPoint : volume.mountPoints) {
        if (isBelow(path, mountPoint) && mountPoint.size() >= located.mountPoint.size()) {
            located.mountPoint = mountPoint;
        }
    }
    if (located.mountPoint.empty()) {
        fail(EXDEV, path + " is not below a mount point of " + volume.path);
    }
    located.relative = located.mountPoint == "/" ? path : path.substr(located.mountPoint.size());
    return located;
}

std::vector<std::string> mountPointsIn(const std::string& mountInfo, dev_t device) {
    std::vector<std::string> found;
    std::ranges::transform(mountsOf(mountInfo, device), std::back_inserter(found), &Mount::mountPoint);
    return found;
}

std::string fileSystemIn(const std::string& mountInfo, dev_t device) {
    const std::vector<Mount> mounts = mountsOf(mountInfo, device);
    return mounts.empty() ? std::string() : mounts.front().fileSystem;
}

bool isServedIn(const std::string& mountInfo, dev_t device) {
    return std::ranges::any_of(mountsOf(mountInfo, device), [](const Mount& mount) {
        return mount.fileSystem == servedType || mount.fileSystem.starts_with(std::string(servedType) + ".");
    });
}

bool isWritableIn(const std::string& mountInfo, dev_t device) {
    return std::ranges::any_of(mountsOf(mountInfo, device), [](const Mount& mount) {
        return mount.options != "ro" && !mount.options.starts_with("ro,");
    });
}

std::uint64_t freeSpace(const std::string& path) {
    const struct statvfs space = spaceOf(path);
    return space.f_bavail * space.f_frsize;
}

std::uint64_t usedSpace(const std::string& path) {
    const struct statvfs space = spaceOf(path);
    return (space.f_blocks - space.f_bfree) * space.f_frsize;
}

} // namespace tolvubd
