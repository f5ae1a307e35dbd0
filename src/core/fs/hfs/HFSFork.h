#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/hfs/HFSLayout.h"

#include <array>
#include <cstdint>
#include <span>

namespace agent::core::fs {

/// Adjacent blocks of a file on the volume.
struct HFSExtent {
    std::uint32_t startBlock = 0; ///< on the volume
    std::uint32_t blockCount = 0;

    [[nodiscard]] bool isEmpty() const { return startBlock == 0 && blockCount == 0; }
    [[nodiscard]] std::uint64_t endBlock() const { return std::uint64_t{startBlock} + blockCount; }
    bool operator==(const HFSExtent&) const = default;
};

/// The eight extents of a fork, or of a record in the extents B-tree.
using HFSExtentRecord = std::array<HFSExtent, hfs_layout::extent::perRecord>;

/// Decodes the bytes of eight extents.
HFSExtentRecord decodeHFSExtents(Bytes bytes);

/// The sum of the extents' block counts.
std::uint64_t countHFSBlocks(std::span<const HFSExtent> extents);

/// The location of a file that belongs to the file system itself.
struct HFSFork {
    std::uint64_t logicalSize = 0; ///< in bytes
    std::uint32_t totalBlocks = 0; ///< of the whole file, including its extents in the B-tree
    HFSExtentRecord extents;       ///< the first eight

    static HFSFork decode(Bytes bytes);

    /// Whether the file has more blocks than the eight extents hold.
    [[nodiscard]] bool overflows() const { return countHFSBlocks(extents) < totalBlocks; }
    bool operator==(const HFSFork&) const = default;
};

} // namespace agent::core::fs
