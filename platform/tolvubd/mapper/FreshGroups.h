#pragma once

#include "Extents.h"
#include "os/FileDescriptor.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd {

/// Which block groups of an ext file system were ever used, in hexadecimal, four groups a digit; empty for
/// other file systems.
std::string groupsInUse(const os::FileDescriptor& image, std::uint64_t size);

/// What is in use in groups that weren't used at all `then`. The structures of such a group were never
/// copied, as they come into use with it, and hardly any of them is written when that happens. All of the
/// volume where it can't be told.
std::vector<Extent> freshGroups(const os::FileDescriptor& image, std::uint64_t size, const std::string& then);

} // namespace tolvubd
