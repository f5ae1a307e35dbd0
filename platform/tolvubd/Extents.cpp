#include "Extents.h"

#include "Failure.h"
#include "FileAccess.h"
#include "os/ExtentRequest.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

namespace tolvubd {

namespace {

constexpr const char* ownPrefix = ".tolvu";
constexpr std::uint32_t extentsAtOnce = 512;
/// An extent with one of these flags has no known place on the volume, or shares its block with other data.
constexpr std::uint32_t nowhere =
    FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC | FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_DATA_TAIL;

/// Adds the extents of a file from offset `from` on, as many as one request holds. Returns the offset of the
/// next extents, or 0 after the last; none if the file system doesn't support FIEMAP.
std::optional<std::uint64_t> readExtents(const os::FileDescriptor& file, std::uint64_t from,
                                         std::vector<Extent>& found) {
    os::ExtentRequest request(extentsAtOnce);
    request.header().fm_start = from;
    request.header().fm_length = FIEMAP_MAX_OFFSET - from;
    request.header().fm_flags = FIEMAP_FLAG_SYNC;
    if (::ioctl(file.get(), FS_IOC_FIEMAP, &request.header()) != 0) {
        if (errno == EOPNOTSUPP) {
            return std::nullopt;
        }
        failWithErrno("find the extents of a file");
    }
    std::uint64_t next = 0;
    for (std::uint32_t index = 0; index < request.header().fm_mapped_extents; ++index) {
        const fiemap_extent extent = request.extent(index);
        if ((extent.fe_flags & nowhere) == 0) {
            found.push_back({extent.fe_physical, extent.fe_length});
        }
        next = (extent.fe_flags & FIEMAP_EXTENT_LAST) != 0 ? 0 : extent.fe_logical + extent.fe_length;
    }
    return next > from ? next : 0;
}

std::optional<std::vector<Extent>> allExtentsOf(const os::FileDescriptor& file) {
    std::vector<Extent> found;
    std::optional<std::uint64_t> from = 0;
    do {
        from = readExtents(file, *from, found);
        if (!from) {
            return std::nullopt;
        }
    } while (*from != 0);
    return found;
}

void append(std::vector<Extent>& extents, const Extent& next) {
    if (!extents.empty() && extents.back().end() == next.offset) {
        extents.back().length += next.length;
    } else {
        extents.push_back(next);
    }
}

/// The block number on the volume of a block of a file; 0 for a hole, and if the file system doesn't report
/// it.
std::uint64_t blockNumberOf(const os::FileDescriptor& file, std::uint64_t block) {
    int number = static_cast<int>(block);
    return ::ioctl(file.get(), FIBMAP, &number) == 0 ? static_cast<unsigned>(number) : 0;
}

/// The number of blocks of a file; none if it is too large for FIBMAP.
std::optional<std::uint64_t> countBlocks(const struct stat& status, std::uint64_t blockSize) {
    constexpr std::uint64_t unit = 512;
    const std::uint64_t bytes = std::max(static_cast<std::uint64_t>(status.st_size),
                                         static_cast<std::uint64_t>(status.st_blocks) * unit);
    const std::uint64_t blocks = bytes / blockSize + (bytes % blockSize != 0 ? 1 : 0);
    return blocks <= std::numeric_limits<int>::max() ? std::optional(blocks) : std::nullopt;
}

/// Queries each block on its own with FIBMAP, which some file systems without FIEMAP support. A file smaller
/// than a block may be stored within its inode and have no block. In a larger file, a block without a place
/// means that the location isn't known.
std::optional<std::vector<Extent>> blocksOf(const os::FileDescriptor& file, const std::string& path) {
    syncFile(file, path);
    struct stat status{};
    checked(::fstat(file.get(), &status), "look at " + path);
    int size = 0;
    if (::ioctl(file.get(), FIGETBSZ, &size) != 0 || size <= 0) {
        return std::nullopt;
    }
    const auto blockSize = static_cast<std::uint64_t>(size);
    const std::optional<std::uint64_t> count = countBlocks(status, blockSize);
    std::vector<Extent> found;
    for (std::uint64_t block = 0; block < count.value_or(0); ++block) {
        if (const std::uint64_t place = blockNumberOf(file, block); place != 0) {
            append(found, {place * blockSize, blockSize});
        } else if (static_cast<std::uint64_t>(status.st_size) >= blockSize) {
            return std::nullopt;
        }
    }
    return count ? std::optional(found) : std::nullopt;
}

bool isRegular(const std::string& path) {
    struct stat status{};
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

} // namespace

std::optional<std::vector<Extent>> extentsOf(const std::string& path) {
    const os::FileDescriptor file = openFile(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    std::optional<std::vector<Extent>> found = allExtentsOf(file);
    return found ? found : blocksOf(file, path);
}

std::vector<Extent> extentsOfOwnFiles(const std::string& mountPoint, std::uint64_t volumeSize) {
    std::vector<Extent> found;
    for (const auto& entry : std::filesystem::directory_iterator(mountPoint)) {
        if (entry.path().filename().string().starts_with(ownPrefix) && isRegular(entry.path())) {
            const auto extents = extentsOf(entry.path());
            if (!extents) {
                return {{0, volumeSize}};
            }
            found.insert(found.end(), extents->begin(), extents->end());
        }
    }
    return found;
}

} // namespace tolvubd
