#pragma once

#include <string>

namespace restore::check {

/// Takes from a volume of FAT32, on an overlay, what only tells that it is in use: the bits in its boot
/// sector and in its tables, and the number of free clusters, a hint that is brought up to date when it is
/// unmounted. Throws std::runtime_error.
void clearFatMarks(const std::string& device);

} // namespace restore::check
