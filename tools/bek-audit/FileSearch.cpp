#include "FileSearch.h"

#include "os/ExtentRequest.h"
#include "os/FileDescriptor.h"
#include "tools/restore/RestorePlan.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <linux/fs.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/stat.h>

namespace audit {

namespace {

namespace fs = std::filesystem;
using restore::pageBytes;

constexpr std::uint32_t extentsAtOnce = 512;
/// Flags of extents without a known physical location.
constexpr std::uint32_t noLocationFlags = FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC;

/// A part of a file that is contiguous on the volume, in bytes.
struct FileExtent {
    std::uint64_t inFile = 0;
    std::uint64_t onVolume = 0;
    std::uint64_t length = 0;
    bool isWritten = true;
};

class Search {
public:
    Search(const std::vector<std::uint64_t>& pages, const Interrupt& interrupt)
        : pages(pages), interrupt(interrupt) {}

    void lookAt(const fs::path& path, const std::string& shown) {
        const os::FileDescriptor file(
            ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW | O_NOATIME));
        struct stat status{};
        if (!file || ::fstat(file.get(), &status) != 0) {
            found.isComplete = false;
            return;
        }
        if (S_ISDIR(status.st_mode)) { // few file systems support FIEMAP for directories
            size = ~std::uint64_t{0};
            noteByFiemap(file.get(), shown);
            return;
        }
        size = static_cast<std::uint64_t>(status.st_size);
        if (!noteByFiemap(file.get(), shown) && !noteByFibmap(file.get(), shown)) {
            found.isComplete = false;
        }
    }

    FoundOwners found;

private:
    /// Returns false if the file system doesn't support FIEMAP.
    bool noteByFiemap(int file, const std::string& shown) {
        for (std::uint64_t next = 0;;) {
            os::ExtentRequest request(extentsAtOnce);
            request.header().fm_start = next;
            request.header().fm_length = FIEMAP_MAX_OFFSET - next;
            if (::ioctl(file, FS_IOC_FIEMAP, &request.header()) != 0) {
                return false;
            }
            const std::uint32_t count = std::min(request.header().fm_mapped_extents, extentsAtOnce);
            for (std::uint32_t index = 0; index < count; ++index) {
                const fiemap_extent extent = request.extent(index);
                if ((extent.fe_flags & noLocationFlags) == 0) {
                    note({extent.fe_logical, extent.fe_physical, extent.fe_length,
                          (extent.fe_flags & FIEMAP_EXTENT_UNWRITTEN) == 0},
                         shown);
                }
                next = extent.fe_logical + extent.fe_length;
            }
            if (count == 0 || (request.extent(count - 1).fe_flags & FIEMAP_EXTENT_LAST) != 0) {
                return true;
            }
            interrupt.check();
        }
    }

    /// Asks for each block by FIBMAP, for file systems older than extents. Their block numbers have 32 bits.
    bool noteByFibmap(int file, const std::string& shown) {
        int blockSize = 0;
        if (::ioctl(file, FIGETBSZ, &blockSize) != 0 || blockSize <= 0) {
            return false;
        }
        const auto length = static_cast<std::uint64_t>(blockSize);
        for (std::uint64_t at = 0; at < size; at += length) {
            auto block = static_cast<unsigned>(at / length);
            if (::ioctl(file, FIBMAP, &block) != 0) {
                return false;
            }
            if (block != 0) {
                note({at, block * length, length, true}, shown);
            }
            interrupt.check();
        }
        return true;
    }

    void note(const FileExtent& extent, const std::string& shown) {
        const std::uint64_t end = extent.onVolume + extent.length;
        auto page = std::ranges::lower_bound(pages, extent.onVolume / pageBytes);
        for (; page != pages.end() && *page * pageBytes < end; ++page) {
            const std::uint64_t into = *page * pageBytes - std::min(*page * pageBytes, extent.onVolume);
            const bool isWritten = extent.isWritten && extent.inFile + into < size;
            Owner& owner = found.byPage.try_emplace(*page, Owner{shown, false}).first->second;
            if (isWritten && !owner.isWritten) { // of files that share a page, one that has written it wins
                owner = {shown, true};
            }
        }
    }

    const std::vector<std::uint64_t>& pages;
    const Interrupt& interrupt;
    std::uint64_t size = 0; // of the file being examined
};

} // namespace

FoundOwners findOwners(const std::string& root, const std::vector<std::uint64_t>& pages,
                       const Interrupt& interrupt) {
    Search search(pages, interrupt);
    search.lookAt(root, "/");
    std::error_code failure;
    fs::recursive_directory_iterator entry(root, failure);
    for (; !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
        interrupt.check();
        const fs::file_type type = entry->symlink_status().type();
        if (type == fs::file_type::regular || type == fs::file_type::directory) {
            search.lookAt(entry->path(), entry->path().string().substr(root.size()));
        }
    }
    if (failure) {
        throw std::runtime_error("the files of the snapshot can't be listed: " + failure.message());
    }
    return std::move(search.found);
}

} // namespace audit
