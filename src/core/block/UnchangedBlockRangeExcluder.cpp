#include "core/block/UnchangedBlockRangeExcluder.h"

#include "info/CowFormat.h"

#include <bit>
#include <functional>
#include <utility>

namespace agent::core::block {

namespace {

constexpr std::uint64_t unitBytes = info::cow::blockSize;

/// For block sizes that don't fit the map: excluding nothing is always correct.
BlockRange excludeNothing(std::uint64_t /*factor*/, const BlockRange& /*range*/, std::uint64_t /*offset*/) {
    return {};
}

} // namespace

class UnchangedBlockRangeExcluder::Impl {
public:
    Impl(IncrementalBitmapInfo bitmapInfo, std::uint32_t blockSize) : bitmapInfo(std::move(bitmapInfo)) {
        if (!std::has_single_bit(blockSize)) {
            converter = excludeNothing;
        } else if (blockSize <= unitBytes) {
            factor = unitBytes / blockSize;
            converter = scaleUp;
        } else {
            factor = blockSize / unitBytes;
            converter = scaleDown;
        }
    }

    IncrementalBitmapInfo bitmapInfo;
    std::uint64_t factor = 1;
    std::function<BlockRange(std::uint64_t factor, const BlockRange& range, std::uint64_t offset)> converter;
};

UnchangedBlockRangeExcluder::UnchangedBlockRangeExcluder(
    info::Logger& logger, std::shared_ptr<const info::BackupableVolume> volume,
    IncrementalBitmapInfo bitmapInfo, std::unique_ptr<fs::IBlockBitmapChunkProvider> chunkProvider,
    const BitRangeFinderFactory& finderFactory)
    : ChunkedBitmapBlockRangeExcluder(logger, std::move(volume), std::move(chunkProvider), finderFactory,
                                      BitRangeFinderFactory::wordFinder),
      impl(std::make_unique<const Impl>(std::move(bitmapInfo), getVolume().getBlockSize())) {}

UnchangedBlockRangeExcluder::~UnchangedBlockRangeExcluder() = default;

std::uint64_t UnchangedBlockRangeExcluder::size() const {
    return impl->bitmapInfo.unchangedBlocks;
}

std::string UnchangedBlockRangeExcluder::name() const {
    return "Unchanged BRE";
}

std::size_t UnchangedBlockRangeExcluder::bitmapBufferSize() const {
    return 0x100000;
}

BlockRange UnchangedBlockRangeExcluder::toBlockRange(const BlockRange& range,
                                                     std::uint64_t chunkStart) const {
    return impl->converter(impl->factor, range, chunkStart);
}

} // namespace agent::core::block
