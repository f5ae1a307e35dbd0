#pragma once

#include <cstdint>
#include <string>

namespace agent::core::fs {

/// The features of ext2, ext3 and ext4 with which their block bitmaps can't be read, by name or number;
/// empty if there are none. Features that any writer may ignore ("compat") can't change the bitmaps, and are
/// not asked about. docs/formats/ext.md has the table, and why each is there.
std::string strangeEXTFeatures(std::uint32_t incompat, std::uint32_t roCompat);

} // namespace agent::core::fs
