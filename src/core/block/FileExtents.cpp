#include "core/block/FileExtents.h"

#include "common/PosixError.h"
#include "os/ExtentRequest.h"
#include "os/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace agent::core::block {

namespace {

using info::level::debug;
using info::level::warning;

/// The records of this many extents take 56 MiB. A file with more extents is copied, which only costs time.
constexpr std::uint32_t maxExtents = std::uint32_t{1} << 20U;

/// An extent with one of these flags isn't excluded. UNKNOWN and DELALLOC mean that its block number isn't
/// valid (yet). SHARED (by a reflink) and NOT_ALIGNED (in a block with other data) mean that other files use
/// its blocks, too.
constexpr std::uint32_t sharedOrUnknownFlags =
    FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC | FIEMAP_EXTENT_SHARED | FIEMAP_EXTENT_NOT_ALIGNED;

/// Reads the extents of one file.
class ExtentWalk {
public:
    ExtentWalk(info::Logger& logger, std::uint32_t blockSize, const std::string& path,
               const ExtentQuery& query)
        : logger(logger), query(query), path(path), blockSize(blockSize) {}

    std::vector<BlockRange> walk() {
        open();
        logBlockCount();
        const std::uint32_t expected = countExtents();
        std::vector<BlockRange> ranges = readExtents(expected);
        std::sort(ranges.begin(), ranges.end());
        close();
        return ranges;
    }

private:
    void open() {
        // The path must be the file itself: a pipe must not block the open, and a link must not be followed.
        file = os::FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
        if (!file) {
            fail("Failed to open handle to file \"" + path + "\", error: ");
        }
    }

    void logBlockCount() {
        logger.log(debug, "FBRE Linux: Block Size = %lu", std::uint64_t{blockSize});
        struct stat status{};
        if (::fstat(file.get(), &status) != 0) {
            fail("Failed to stat file \"" + path + "\", error: ");
        }
        if (!S_ISREG(status.st_mode)) {
            throw std::runtime_error("\"" + path + "\" is not a regular file");
        }
        const auto bytes = static_cast<std::uint64_t>(status.st_size);
        logger.log(debug, "FBRE Linux: Block Count = %lu", (bytes + blockSize - 1) / blockSize);
    }

    std::uint32_t countExtents() {
        os::ExtentRequest request(0);
        if (query(file.get(), request.header()) != 0) {
            fail("FIEMAP IoCtl for file \"" + path + "\" failed, error: ");
        }
        const std::uint32_t count = request.header().fm_mapped_extents;
        logger.log(debug, "FIEMAP IoCtl of file \"%s\" reports %u (pre-merged) extents", path.c_str(), count);
        if (count > maxExtents) {
            throw std::runtime_error("the file lies in too many pieces");
        }
        return count;
    }

    std::vector<BlockRange> readExtents(std::uint32_t expected) {
        os::ExtentRequest request(expected);
        if (query(file.get(), request.header()) != 0) {
            fail("FIEMAP IoCtl for excluded file \"" + path + "\" failed, error ");
        }
        const std::uint32_t mapped = request.header().fm_mapped_extents;
        std::vector<BlockRange> ranges;
        std::uint32_t count = 0;
        bool last = mapped == 0;
        while (!last && count < std::min(mapped, expected)) {
            const fiemap_extent extent = request.extent(count++);
            exclude(extent, ranges);
            last = (extent.fe_flags & FIEMAP_EXTENT_LAST) != 0;
        }
        logCount(expected, count, !last);
        return ranges;
    }

    void exclude(const fiemap_extent& extent, std::vector<BlockRange>& ranges) {
        if ((extent.fe_flags & sharedOrUnknownFlags) != 0) {
            return;
        }
        const BlockRange range{extent.fe_physical / blockSize, extent.fe_length / blockSize};
        logger.log(debug, "FBRE Linux: Exclude extent { %lu, %lu }", range.start, range.length);
        ranges.push_back(range);
    }

    /// `more`: whether the file has more extents than there were records for.
    void logCount(std::uint32_t expected, std::uint32_t count, bool more) {
        if (more) {
            logger.log(warning, info::reason("driver-file-copied"),
                       "FBRE Linux: identified more extents for file \"%s\" than we thought we should have "
                       "(expected %u, but got some amount more); some blocks may not be excluded properly",
                       path.c_str(), expected);
        } else if (count < expected) {
            info::LogEntry(logger, warning)
                << "FBRE Linux: identified fewer extents for file \"" << path
                << "\" than we thought we should have (expected " << expected << ", got " << count << ")";
        } else {
            logger.log(debug,
                       "FBRE Linux: FIEMAP got as many extents as we thought we should have (%u for file "
                       "\"%s\")",
                       count, path.c_str());
        }
    }

    void close() {
        if (::close(file.release()) != 0) { // NOLINT(resources): only here can its failure be told
            logger.log(warning, "Failed to close file handle to excluded file \"%s\": %s", path.c_str(),
                       PosixError::describe(errno).c_str());
        }
    }

    [[noreturn]] static void fail(const std::string& what) {
        const int error = errno;
        throw PosixError(what + PosixError::describe(error), error);
    }

    info::Logger& logger;
    const ExtentQuery& query;
    const std::string& path;
    std::uint64_t blockSize;
    os::FileDescriptor file;
};

} // namespace

int queryExtents(int descriptor, fiemap& request) {
    return ::ioctl(descriptor, FS_IOC_FIEMAP, &request);
}

std::vector<BlockRange> getFileExtents(info::Logger& logger, std::uint32_t blockSize, const std::string& path,
                                       const ExtentQuery& query) {
    if (blockSize == 0) {
        throw std::invalid_argument("the volume's block size is not known");
    }
    return ExtentWalk(logger, blockSize, path, query).walk();
}

} // namespace agent::core::block
