#include "UsedRanges.h"

#include "common/AlignedBuffer.h"
#include "core/block/BitRangeFinder.h"
#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <utility>

namespace usedmap {

namespace {

using agent::BlockRange;

void append(UsedRanges& used, BlockRange range) {
    used.usedBlocks += range.length;
    if (!used.ranges.empty() && used.ranges.back().end() == range.start) {
        used.ranges.back().length += range.length;
    } else {
        used.ranges.push_back(range);
    }
}

/// A map may extend beyond the last block, but a backup doesn't. If the block size is 0, there is no map.
std::uint64_t blocksOf(const agent::core::IVolumeDevice& device, std::uint32_t blockSize) {
    return blockSize == 0 ? 0 : (device.getSize() + blockSize - 1) / blockSize;
}

} // namespace

UsedRanges findUsedRanges(agent::info::Logger& logger, agent::core::IVolumeDevice& device,
                          std::uint32_t sectorSize, std::size_t bufferBytes) {
    const auto provider =
        agent::core::fs::UsedBlockBitmapChunkProviderFactory(logger, sectorSize, &device).create();
    if (!provider) {
        throw std::runtime_error("the file system is of no kind that is known");
    }
    const agent::BitRangeFinder finder(true, provider->isBitmapMsbFirst());
    agent::AlignedBuffer buffer(bufferBytes, sectorSize); // as in a backup
    auto* const map = static_cast<std::uint8_t*>(static_cast<void*>(buffer.data()));
    UsedRanges used;
    used.blockSize = provider->getBlockSize();
    const std::uint64_t blocksOfDevice = blocksOf(device, used.blockSize);
    for (;;) {
        const std::int64_t chunkBlocks = provider->getBitmapChunk(used.mappedBlocks, map, buffer.size());
        if (chunkBlocks < 0) {
            throw std::runtime_error("the map of used blocks can't be read; a backup would copy every block");
        }
        const auto blocks = std::min(static_cast<std::uint64_t>(chunkBlocks),
                                     blocksOfDevice - used.mappedBlocks); // 0 at the end
        if (blocks == 0) {
            return used;
        }
        for (const BlockRange& range : finder.findRanges(map, blocks)) {
            append(used, {used.mappedBlocks + range.start, range.length});
        }
        used.mappedBlocks += blocks;
    }
}

std::uint64_t exclude(UsedRanges& used, const std::vector<BlockRange>& excluded) {
    const std::uint64_t before = used.usedBlocks;
    const std::vector<BlockRange> all = std::exchange(used.ranges, {});
    used.usedBlocks = 0;
    auto next = excluded.begin();
    for (const BlockRange& range : all) {
        std::uint64_t position = range.start;
        next =
            std::find_if(next, excluded.end(), [&](const BlockRange& each) { return each.end() > position; });
        for (auto each = next; each != excluded.end() && each->start < range.end(); ++each) {
            if (each->start > position) {
                append(used, {position, each->start - position});
            }
            position = std::max(position, std::min(each->end(), range.end()));
        }
        if (position < range.end()) {
            append(used, {position, range.end() - position});
        }
    }
    return before - used.usedBlocks;
}

} // namespace usedmap
