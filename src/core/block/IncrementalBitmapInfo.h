#pragma once

#include <cstdint>
#include <string>

namespace agent::core::block {

/// The location of the snapshot driver's record of the changes since the last backup. The record is an array
/// of little-endian 64-bit words, one for each 4096 bytes of the volume; 0 means that these bytes have not
/// changed.
struct IncrementalBitmapInfo {
    std::string fileName;
    std::uint64_t bitmapOffset = 0;    ///< in bytes
    std::uint64_t bitmapSize = 0;      ///< in bytes
    std::uint64_t bitmapEntries = 0;   ///< 64-bit words
    std::uint64_t unchangedBlocks = 0; ///< for estimates only
};

} // namespace agent::core::block
