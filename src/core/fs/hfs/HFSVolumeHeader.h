#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/hfs/HFSFork.h"

#include <cstdint>

namespace agent::core::fs {

/// The fields that are read from the header of an HFS+ volume, and the values derived from them.
/// Owns:    copies of the fields.
/// Threads: a plain value; const calls are safe from any thread.
/// Fails:   never. The derived values are only reliable if `whyUnusable` returns null.
struct HFSVolumeHeader {
    /// Decodes the bytes of a header, which may be invalid.
    static HFSVolumeHeader decode(Bytes bytes);

    /// Whether the bytes have the signature of HFS+ or HFSX.
    [[nodiscard]] bool hasSignature() const;
    /// If false, the block size must not be used.
    [[nodiscard]] bool hasPossibleBlockSize() const;
    [[nodiscard]] bool hasKnownVersion() const;
    /// Why the header can't be trusted; null if it can.
    [[nodiscard]] const char* whyUnusable() const;
    /// Why the extents can't belong to one of the file system's own files; null if they can.
    [[nodiscard]] const char* whyUnusable(std::span<const HFSExtent> extents) const;
    /// Whether another header has the same sizes, and the bitmap and the extents B-tree at the same places.
    [[nodiscard]] bool hasSameLayout(const HFSVolumeHeader& other) const;
    /// The size of a bitmap with one bit for each block, in bytes.
    [[nodiscard]] std::uint64_t bitmapBytes() const;

    std::uint16_t signature = 0;
    std::uint16_t version = 0;
    std::uint32_t attributes = 0;
    std::uint32_t blockSize = 0;
    std::uint32_t totalBlocks = 0;
    HFSFork allocation; ///< the bitmap
    HFSFork extents;    ///< the B-tree of the extents that don't fit in their files' forks
};

} // namespace agent::core::fs
