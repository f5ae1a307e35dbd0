#include "core/block/UnusedBlockRangeExcluder.h"

namespace agent::core::block {

UnusedBlockRangeExcluder::UnusedBlockRangeExcluder(
    info::Logger& logger, std::shared_ptr<const info::BackupableVolume> volume,
    std::unique_ptr<fs::IBlockBitmapChunkProvider> chunkProvider, const BitRangeFinderFactory& finderFactory)
    : ChunkedBitmapBlockRangeExcluder(logger, std::move(volume), std::move(chunkProvider), finderFactory,
                                      BitRangeFinderFactory::bitFinder) {}

std::uint64_t UnusedBlockRangeExcluder::size() const {
    const std::uint32_t blockSize = getVolume().getBlockSize();
    return blockSize == 0 ? 0 : getVolume().getSpaceFree() / blockSize;
}

std::string UnusedBlockRangeExcluder::name() const {
    const std::vector<std::string>& mountPoints = getVolume().getMountPoints();
    return "Unused BRE for " + (mountPoints.empty() ? std::string() : mountPoints.front());
}

/// Holds the bitmap of 1.25 TiB in blocks of 4096 bytes.
std::size_t UnusedBlockRangeExcluder::bitmapBufferSize() const {
    return 0x2800000;
}

BlockRange UnusedBlockRangeExcluder::toBlockRange(const BlockRange& range, std::uint64_t chunkStart) const {
    return {range.start + chunkStart, range.length};
}

} // namespace agent::core::block
