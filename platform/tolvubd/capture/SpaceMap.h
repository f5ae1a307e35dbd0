#pragma once

#include "FileAccess.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace tolvubd {

/// The blocks of a captured volume that are in use, according to its file system.
struct SpaceMap {
    std::uint64_t blockSize = 0;
    std::vector<bool> used;
};

/// Reads the free-space map of an ext2, ext3, ext4, XFS or NTFS file system that is clean or was held. None
/// for any other file system and any unsupported layout: then every block may be in use, and every block may
/// be free.
std::optional<SpaceMap> readSpaceMap(const os::FileDescriptor& image, std::uint64_t size);

std::optional<SpaceMap> readExtSpace(const os::FileDescriptor& image, std::uint64_t size);
/// The same, but marks no block in the block groups whose flag in `leftOut` is set.
std::optional<SpaceMap> readExtSpaceWithout(const os::FileDescriptor& image, std::uint64_t size,
                                            const std::vector<bool>& leftOut);
/// One flag for each block group: whether any of its blocks was ever in use.
std::optional<std::vector<bool>> readExtGroups(const os::FileDescriptor& image, std::uint64_t size);
std::optional<SpaceMap> readXfsSpace(const os::FileDescriptor& image, std::uint64_t size);
std::optional<SpaceMap> readNtfsSpace(const os::FileDescriptor& image, std::uint64_t size);

} // namespace tolvubd
