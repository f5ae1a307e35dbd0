#pragma once

#include <cstdint>
#include <string>

namespace agent::core::fs {

/// The names or numbers of the set features with which the block bitmaps of ext2, ext3 and ext4 can't be
/// read; empty if there are none. "compat" features can't change the bitmaps, because any writer may ignore
/// them, so they aren't checked. docs/formats/ext.md has the table of features and the reason for each.
std::string unsupportedEXTFeatures(std::uint32_t incompat, std::uint32_t roCompat);

} // namespace agent::core::fs
