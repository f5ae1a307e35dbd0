#include "Extents.h"

#include "Failure.h"
#include "FileAccess.h"
#include "os/ExtentRequest.h"

#include <fcntl.h>
#include <filesystem>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

namespace tolvubd {

namespace {

constexpr const char* ownPrefix = ".tolvu";
constexpr std::uint32_t extentsAtOnce = 512;
/// Such an extent isn't anywhere on the volume, or not in blocks of its own.
constexpr std::uint32_t nowhere =
    FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC | FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_DATA_TAIL;

/// The extents of a file from a position on, as many as there is room for. Returns where the next ones begin,
/// 0 behind the last.
std::uint64_t readExtents(const os::FileDescriptor& file, std::uint64_t from, std::vector<Extent>& found) {
    os::ExtentRequest request(extentsAtOnce);
    request.header().fm_start = from;
    request.header().fm_length = FIEMAP_MAX_OFFSET - from;
    request.header().fm_flags = FIEMAP_FLAG_SYNC;
    checked(::ioctl(file.get(), FS_IOC_FIEMAP, &request.header()), "find the extents of a file");
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

bool isRegular(const std::string& path) {
    struct stat status{};
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

} // namespace

std::vector<Extent> extentsOf(const std::string& path) {
    const os::FileDescriptor file = openFile(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    std::vector<Extent> found;
    std::uint64_t from = 0;
    do {
        from = readExtents(file, from, found);
    } while (from != 0);
    return found;
}

std::vector<Extent> extentsOfOwnFiles(const std::string& mountPoint) {
    std::vector<Extent> found;
    for (const auto& entry : std::filesystem::directory_iterator(mountPoint)) {
        if (entry.path().filename().string().starts_with(ownPrefix) && isRegular(entry.path())) {
            const std::vector<Extent> extents = extentsOf(entry.path());
            found.insert(found.end(), extents.begin(), extents.end());
        }
    }
    return found;
}

} // namespace tolvubd
