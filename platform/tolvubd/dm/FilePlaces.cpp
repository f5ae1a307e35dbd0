#include "dm/FilePlaces.h"

#include "Failure.h"
#include "FileAccess.h"
#include "os/ExtentRequest.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <utility>

namespace tolvubd::dm {

namespace {

constexpr std::uint64_t unit = 4096;
constexpr std::uint32_t extentsAtOnce = 512;
constexpr decltype(statfs::f_type) xfsMagic = 0x58465342;
/// A file whose extents have any other flag shares blocks with other data, or stores its content in another
/// form.
constexpr std::uint32_t harmless = FIEMAP_EXTENT_LAST | FIEMAP_EXTENT_UNWRITTEN | FIEMAP_EXTENT_MERGED;

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    fail(EOPNOTSUPP, path + ' ' + why);
}

/// On any other file system, the reported extents may not be positions on the device that is mounted.
void requireKnownFileSystem(const os::FileDescriptor& file, const std::string& path) {
    struct statfs status{};
    checked(::fstatfs(file.get(), &status), "look at the file system of " + path);
    if (status.f_type != EXT4_SUPER_MAGIC && status.f_type != xfsMagic) {
        refuse(path, "is neither on ext4 nor on XFS");
    }
}

/// The blocks of an encrypted or compressed file don't hold its content. ext4 doesn't report encryption in
/// the extent flags.
void requirePlain(const os::FileDescriptor& file, const std::string& path) {
    int flags = 0;
    if (::ioctl(file.get(), FS_IOC_GETFLAGS, &flags) != 0 || (flags & (FS_ENCRYPT_FL | FS_COMPR_FL)) != 0) {
        refuse(path, "may be encrypted or compressed");
    }
}

/// XFS can keep the content of a file on a realtime device.
void requireMainDevice(const os::FileDescriptor& file, const std::string& path) {
    fsxattr attributes{};
    if (::ioctl(file.get(), FS_IOC_FSGETXATTR, &attributes) != 0 ||
        (attributes.fsx_xflags & FS_XFLAG_REALTIME) != 0) {
        refuse(path, "may be on another device than its file system");
    }
}

/// Returns false with errno on failure.
bool trySetLock(const os::FileDescriptor& file, bool locked) noexcept {
    int flags = 0;
    if (::ioctl(file.get(), FS_IOC_GETFLAGS, &flags) != 0) {
        return false;
    }
    flags = locked ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    return ::ioctl(file.get(), FS_IOC_SETFLAGS, &flags) == 0;
}

/// If the file system has no such flag, the file isn't locked.
bool isLocked(const os::FileDescriptor& file) {
    int flags = 0;
    return ::ioctl(file.get(), FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_IMMUTABLE_FL) != 0;
}

void setLock(const os::FileDescriptor& file, bool locked, const std::string& path) {
    if (!trySetLock(file, locked)) {
        fail(errno == ENOTTY ? EOPNOTSUPP : errno, "lock or release " + path);
    }
}

std::uint64_t sizeOf(const os::FileDescriptor& file, const std::string& path) {
    struct stat status{};
    checked(::fstat(file.get(), &status), "look at " + path);
    if (!S_ISREG(status.st_mode)) {
        refuse(path, "is no file");
    }
    return static_cast<std::uint64_t>(status.st_size);
}

os::FileDescriptor openThere(const std::string& path) {
    os::FileDescriptor file = openFile(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    (void)sizeOf(file, path);
    return file;
}

/// Collects the extents of a file, which the kernel reports in the order of the file.
class Places {
public:
    explicit Places(std::string path) : path(std::move(path)) {}

    void add(const fiemap_extent& extent);
    /// The offset in the file where the extents added so far end.
    [[nodiscard]] std::uint64_t end() const { return position; }
    [[nodiscard]] const std::vector<Extent>& all() const { return pieces; }

private:
    std::string path;
    std::uint64_t position = 0;
    std::vector<Extent> pieces;
};

void Places::add(const fiemap_extent& extent) {
    if ((extent.fe_flags & ~harmless) != 0 || extent.fe_logical != position || extent.fe_length == 0 ||
        extent.fe_length > std::numeric_limits<std::uint64_t>::max() - extent.fe_physical ||
        extent.fe_physical % unit != 0 || extent.fe_length % unit != 0) {
        refuse(path, "isn't all in blocks of its own");
    }
    position += extent.fe_length;
    if (!pieces.empty() && pieces.back().end() == extent.fe_physical) {
        pieces.back().length += extent.fe_length;
    } else {
        pieces.push_back({extent.fe_physical, extent.fe_length});
    }
    if (pieces.size() > mostPieces) {
        refuse(path, "is in too many pieces");
    }
}

/// Adds the next extents of a file. Returns false when there are no more.
bool addExtents(const os::FileDescriptor& file, Places& places, const std::string& path) {
    os::ExtentRequest request(extentsAtOnce);
    request.header().fm_start = places.end();
    request.header().fm_length = FIEMAP_MAX_OFFSET - places.end();
    request.header().fm_flags = FIEMAP_FLAG_SYNC;
    if (::ioctl(file.get(), FS_IOC_FIEMAP, &request.header()) != 0) {
        fail(errno == ENOTTY ? EOPNOTSUPP : errno, "find the places of " + path);
    }
    const std::uint32_t count = std::min(request.header().fm_mapped_extents, extentsAtOnce);
    bool isLast = count == 0;
    for (std::uint32_t index = 0; index < count; ++index) {
        const fiemap_extent extent = request.extent(index);
        places.add(extent);
        isLast = (extent.fe_flags & FIEMAP_EXTENT_LAST) != 0;
    }
    return !isLast;
}

/// The loop ends, because each extent begins after the one before it in the file.
std::vector<Extent> placesIn(const os::FileDescriptor& file, const std::string& path) {
    const std::uint64_t size = sizeOf(file, path);
    requireKnownFileSystem(file, path);
    requirePlain(file, path);
    requireMainDevice(file, path);
    Places places(path);
    while (addExtents(file, places, path)) {
    }
    if (places.end() < size) {
        refuse(path, "has a hole");
    }
    return partOf(places.all(), 0, size); // extents may reach beyond the end of the file
}

void reserve(const os::FileDescriptor& file, std::uint64_t size, const std::string& path) {
    checked(::fallocate(file.get(), 0, 0, static_cast<off_t>(size)), "reserve the space of " + path);
}

} // namespace

std::vector<Extent> makeLockedFile(const std::string& path, std::uint64_t size) {
    if (size % unit != 0) {
        fail(EINVAL, "make " + path);
    }
    const os::FileDescriptor file = openFile(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    try {
        reserve(file, size, path);
        setLock(file, true, path);
        syncFile(file, path);
        syncDirectory(std::filesystem::path(path).parent_path());
        return placesIn(file, path);
    } catch (...) {
        trySetLock(file, false);
        ::unlink(path.c_str());
        throw;
    }
}

std::vector<Extent> placesOf(const std::string& path) {
    return placesIn(openThere(path), path);
}

void lockFile(const std::string& path) {
    const os::FileDescriptor file = openThere(path);
    setLock(file, true, path);
    syncFile(file, path);
}

bool isLockedFile(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0 && isLocked(openThere(path));
}

void unlockFile(const std::string& path) {
    if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
        return;
    }
    const os::FileDescriptor file = openThere(path);
    if (isLocked(file)) {
        setLock(file, false, path);
    }
}

std::vector<Extent> partOf(const std::vector<Extent>& places, std::uint64_t skip, std::uint64_t length) {
    std::vector<Extent> part;
    for (const Extent& piece : places) {
        const std::uint64_t passed = std::min(skip, piece.length);
        const std::uint64_t taken = std::min(length, piece.length - passed);
        if (taken > 0) {
            part.push_back({piece.offset + passed, taken});
        }
        skip -= passed;
        length -= taken;
    }
    if (skip > 0 || length > 0) {
        fail(EINVAL, "find a part of a file");
    }
    return part;
}

} // namespace tolvubd::dm
