#include "UsedRanges.h"

#include "core/block/BitRangeFinder.h"
#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"

#include <cstddef>
#include <stdexcept>

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

} // namespace

UsedRanges findUsedRanges(agent::info::Logger& logger, agent::core::IVolumeDevice& device,
                          std::uint32_t sectorSize, std::size_t bufferBytes) {
    const auto provider =
        agent::core::fs::UsedBlockBitmapChunkProviderFactory(logger, sectorSize, &device).create();
    if (!provider) {
        throw std::runtime_error("the file system is of no kind that is known");
    }
    const agent::BitRangeFinder finder(true, provider->isBitmapMsbFirst());
    std::vector<std::uint8_t> buffer(bufferBytes);
    UsedRanges used;
    used.blockSize = provider->getBlockSize();
    for (;;) {
        const std::int64_t blocks = provider->getBitmapChunk(used.knownBlocks, buffer.data(), buffer.size());
        if (blocks < 0) {
            throw std::runtime_error("the map of used blocks can't be read; a backup would copy every block");
        }
        if (blocks == 0) {
            return used;
        }
        for (const BlockRange& range : finder.findRanges(buffer.data(), static_cast<std::uint64_t>(blocks))) {
            append(used, {used.knownBlocks + range.start, range.length});
        }
        used.knownBlocks += static_cast<std::uint64_t>(blocks);
    }
}

} // namespace usedmap
