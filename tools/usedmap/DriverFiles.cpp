#include "DriverFiles.h"

#include "core/backup/SnapshotFiles.h"
#include "core/block/FileExtents.h"
#include "info/DriverExtension.h"

#include <algorithm>
#include <libmount.h>
#include <memory>
#include <string>
#include <sys/stat.h>

namespace usedmap {

namespace {

using agent::BlockRange;
using Ranges = std::vector<BlockRange>;

/// A mount point that shows the root of the file system on this device; empty if there is none.
std::string mountPointOf(dev_t device) {
    const std::unique_ptr<libmnt_table, void (*)(libmnt_table*)> table(
        mnt_new_table_from_file("/proc/self/mountinfo"), mnt_unref_table);
    const std::unique_ptr<libmnt_iter, void (*)(libmnt_iter*)> position(mnt_new_iter(MNT_ITER_BACKWARD),
                                                                        mnt_free_iter);
    libmnt_fs* mounted = nullptr;
    while (table && position && mnt_table_next_fs(table.get(), position.get(), &mounted) == 0) {
        const std::string target = mnt_fs_get_target(mounted);
        struct stat seen{};
        // A later mount at the same place hides it.
        if (mnt_fs_get_devno(mounted) == device && std::string(mnt_fs_get_root(mounted)) == "/" &&
            ::stat(target.c_str(), &seen) == 0 && seen.st_dev == device) {
            return target;
        }
    }
    return "";
}

void append(Ranges& all, const Ranges& more) {
    all.insert(all.end(), more.begin(), more.end());
}

} // namespace

std::optional<Ranges> findDriverFiles(agent::info::Logger& logger, const agent::core::IVolumeDevice& device,
                                      std::uint32_t blockSize) {
    struct stat status{};
    if (::fstat(device.getFd(), &status) != 0 || !S_ISBLK(status.st_mode)) {
        return std::nullopt;
    }
    const std::string mountPoint = mountPointOf(status.st_rdev);
    if (mountPoint.empty()) {
        return std::nullopt;
    }
    Ranges ranges;
    for (const std::string& path : agent::core::backup::snapshot_files::pathsUnder(
             agent::Path(mountPoint), agent::info::DriverExtension().getDriverFiles())) {
        struct stat file{};
        if (::lstat(path.c_str(), &file) != 0) {
            continue;
        }
        try {
            append(ranges, agent::core::block::getFileExtents(logger, blockSize, path));
        } catch (const std::exception& error) {
            logger.log(agent::info::level::debug, "%s", error.what());
            return std::nullopt;
        }
    }
    std::ranges::sort(ranges);
    return ranges;
}

} // namespace usedmap
