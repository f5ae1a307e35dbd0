#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/hfs/HFSLayout.h"

#include <array>
#include <cstdint>
#include <span>

namespace agent::core::fs {

/// Some blocks of a file that stand side by side on the volume.
struct HFSExtent {
    std::uint32_t startBlock = 0; ///< of the volume
    std::uint32_t blockCount = 0;

    [[nodiscard]] bool isEmpty() const { return startBlock == 0 && blockCount == 0; }
    [[nodiscard]] std::uint64_t endBlock() const { return std::uint64_t{startBlock} + blockCount; }
    bool operator==(const HFSExtent&) const = default;
};

/// As many extents as stand together in a fork, and in a record of the tree.
using HFSExtentRecord = std::array<HFSExtent, hfs_layout::extent::perRecord>;

/// From the bytes of eight extents.
HFSExtentRecord decodeHFSExtents(Bytes bytes);

/// How many blocks they are together.
std::uint64_t countHFSBlocks(std::span<const HFSExtent> extents);

/// Where a file of the file system's own is.
struct HFSFork {
    std::uint64_t logicalSize = 0; ///< in bytes
    std::uint32_t totalBlocks = 0; ///< of the whole file, those of the tree of extents included
    HFSExtentRecord extents;       ///< the first eight

    static HFSFork decode(Bytes bytes);

    /// Whether there are blocks that the eight extents don't have.
    [[nodiscard]] bool overflows() const { return countHFSBlocks(extents) < totalBlocks; }
    bool operator==(const HFSFork&) const = default;
};

} // namespace agent::core::fs
