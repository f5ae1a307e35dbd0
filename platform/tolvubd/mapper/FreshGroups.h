#pragma once

#include "Extents.h"
#include "os/FileDescriptor.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd {

/// Which block groups of an ext file system have ever been used: a hexadecimal text, four groups per digit.
/// Empty for other file systems.
std::string groupsInUse(const os::FileDescriptor& image, std::uint64_t size);

/// The blocks in use of all groups that weren't used yet at `then`, a result of groupsInUse. The metadata
/// structures of such a group come into use with it, mostly without being written, so no backup has copied
/// them yet. The whole volume if the groups can't be read.
std::vector<Extent> freshGroups(const os::FileDescriptor& image, std::uint64_t size, const std::string& then);

} // namespace tolvubd
