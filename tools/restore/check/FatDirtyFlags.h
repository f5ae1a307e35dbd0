#pragma once

#include <string>

namespace restore::check {

/// Removes from a FAT32 volume, on an overlay, the marks of a volume in use: the bits in its boot sector and
/// in its tables, and the number of free clusters, a hint that only an unmount updates. Throws
/// std::runtime_error.
void clearFatDirtyFlags(const std::string& device);

} // namespace restore::check
