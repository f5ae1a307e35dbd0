#pragma once

#include "core/block/BlockRange.h"
#include "core/fs/IVolumeDevice.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <vector>

namespace usedmap {

/// Which blocks of a volume are used, as a backup of it would find them.
struct UsedRanges {
    std::vector<agent::BlockRange> ranges; ///< ascending; adjacent ranges are merged
    std::uint32_t blockSize = 0;           ///< bytes
    std::uint64_t usedBlocks = 0;
    std::uint64_t mappedBlocks = 0; ///< the blocks that the map covers, from block 0 on
};

/// Reads the map in chunks of `bufferBytes`. Throws std::runtime_error if the file system is of no known
/// kind, or if its map can't be read.
UsedRanges findUsedRanges(agent::info::Logger& logger, agent::core::IVolumeDevice& device,
                          std::uint32_t sectorSize, std::size_t bufferBytes);

/// Removes blocks from the used ones. `excluded` ascends; its ranges may touch and overlap. Returns how many
/// of the removed blocks were used.
std::uint64_t exclude(UsedRanges& used, const std::vector<agent::BlockRange>& excluded);

} // namespace usedmap
