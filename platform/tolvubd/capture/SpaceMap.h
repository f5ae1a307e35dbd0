#pragma once

#include "FileAccess.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace tolvubd {

/// Which blocks of a captured volume its file system says are in use.
struct SpaceMap {
    std::uint64_t blockSize = 0;
    std::vector<bool> used;
};

/// Reads the map of free space of an ext2, ext3, ext4, XFS or NTFS file system that is clean or was held.
/// None when it is another one, or laid out in a way that isn't understood: then every block may be in use,
/// and every block may be free.
std::optional<SpaceMap> readSpaceMap(const os::FileDescriptor& image, std::uint64_t size);

std::optional<SpaceMap> readExtSpace(const os::FileDescriptor& image, std::uint64_t size);
/// The same, with nothing marked in the block groups that are flagged.
std::optional<SpaceMap> readExtSpaceWithout(const os::FileDescriptor& image, std::uint64_t size,
                                            const std::vector<bool>& leftOut);
/// One flag for each block group: whether anything in it was ever in use.
std::optional<std::vector<bool>> readExtGroups(const os::FileDescriptor& image, std::uint64_t size);
std::optional<SpaceMap> readXfsSpace(const os::FileDescriptor& image, std::uint64_t size);
std::optional<SpaceMap> readNtfsSpace(const os::FileDescriptor& image, std::uint64_t size);

} // namespace tolvubd
