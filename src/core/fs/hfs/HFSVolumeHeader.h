#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/hfs/HFSFork.h"

#include <cstdint>

namespace agent::core::fs {

/// What is read of the header of an HFS+ volume, and what follows from it.
/// Owns:    copies of the numbers.
/// Threads: a value.
/// Fails:   nothing fails. What follows from the numbers can be relied on where `objection` has none.
struct HFSVolumeHeader {
    /// From the bytes of a header, which may be anything.
    static HFSVolumeHeader decode(Bytes bytes);

    /// Whether the bytes were those of an HFS+ header.
    [[nodiscard]] bool hasSignature() const;
    /// Whether reads may go by the size of a block.
    [[nodiscard]] bool hasPossibleBlockSize() const;
    [[nodiscard]] bool hasKnownVersion() const;
    /// Why no map may be made by this header; null if nothing speaks against it.
    [[nodiscard]] const char* objection() const;
    /// Why the extents can't be where a file of the file system's own is; null if they can.
    [[nodiscard]] const char* objectionTo(std::span<const HFSExtent> extents) const;
    /// Whether another header places the bitmap, and the tree that tells more of it, as this one does.
    [[nodiscard]] bool placesTheSame(const HFSVolumeHeader& other) const;
    /// How many bytes have a bit for each block.
    [[nodiscard]] std::uint64_t bitmapBytes() const;

    std::uint16_t signature = 0;
    std::uint16_t version = 0;
    std::uint32_t attributes = 0;
    std::uint32_t blockSize = 0;
    std::uint32_t totalBlocks = 0;
    HFSFork allocation; ///< the bitmap
    HFSFork extents;    ///< the tree of extents that didn't fit in their forks
};

} // namespace agent::core::fs
