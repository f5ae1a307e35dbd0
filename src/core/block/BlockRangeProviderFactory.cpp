#include "core/block/BlockRangeProviderFactory.h"

#include "core/block/BitRangeFinderFactory.h"
#include "core/block/BlockRangeProvider.h"
#include "core/block/ChunkRangeProvider.h"
#include "core/block/FileBlockRangeExcluder.h"
#include "core/block/SizedBlockRangeProvider.h"
#include "core/block/UnchangedBlockBitmapChunkProvider.h"
#include "core/block/UnchangedBlockRangeExcluder.h"
#include "core/block/UnusedBlockRangeExcluder.h"

#include <utility>

namespace agent::core::block {

using ProviderPointer = BlockRangeProviderFactory::ProviderPointer;

namespace {

ProviderPointer wrapIfSized(ProviderPointer excluder, bool sized) {
    if (sized) {
        return std::make_unique<SizedBlockRangeProvider>(std::move(excluder), 0);
    }
    return excluder;
}

} // namespace

BlockRangeProviderFactory::BlockRangeProviderFactory(info::Logger& logger,
                                                     std::shared_ptr<const info::BackupableVolume> volume)
    : logger(logger), volume(std::move(volume)) {}

ProviderPointer BlockRangeProviderFactory::createFileExcluder(const std::string& path, bool sized) const {
    return wrapIfSized(std::make_unique<FileBlockRangeExcluder>(logger, volume->getBlockSize(), path), sized);
}

ProviderPointer
BlockRangeProviderFactory::createUnchangedExcluder(const IncrementalBitmapInfo& bitmapInfo) const {
    return std::make_unique<UnchangedBlockRangeExcluder>(
        logger, volume, bitmapInfo, std::make_unique<UnchangedBlockBitmapChunkProvider>(logger, bitmapInfo),
        BitRangeFinderFactory());
}

ProviderPointer
BlockRangeProviderFactory::createUnusedExcluder(std::unique_ptr<fs::IBlockBitmapChunkProvider> chunkProvider,
                                                bool sized) const {
    return wrapIfSized(std::make_unique<UnusedBlockRangeExcluder>(logger, volume, std::move(chunkProvider),
                                                                  BitRangeFinderFactory()),
                       sized);
}

ProviderPointer BlockRangeProviderFactory::createIncludedProvider(std::vector<ProviderPointer> excluders,
                                                                  std::uint64_t totalBlocks) const {
    return std::make_unique<BlockRangeProvider>(logger, std::move(excluders), totalBlocks);
}

ProviderPointer BlockRangeProviderFactory::createChunkProvider(ProviderPointer base,
                                                               std::uint64_t maxBlocksPerChunk) const {
    return std::make_unique<ChunkRangeProvider>(logger, std::move(base), maxBlocksPerChunk);
}

} // namespace agent::core::block
