#include "core/backup/phase/CreateChunkRangeProvider.h"

#include "common/File.h"
#include "core/backup/SnapshotFiles.h"

#include <utility>

namespace agent::core::backup::phase {

CreateChunkRangeProvider::CreateChunkRangeProvider(Source source, ProviderPointer& provider,
                                                   const block::BlockRangeProviderFactory& ranges,
                                                   fs::UsedBlockBitmapChunkProviderFactory& fileSystems,
                                                   const std::uint64_t& maxBlocksPerChunk)
    : source(std::move(source)),
      provider(provider),
      ranges(ranges),
      fileSystems(fileSystems),
      maxBlocksPerChunk(maxBlocksPerChunk) {}

void CreateChunkRangeProvider::execute() {
    provider = ranges.createChunkProvider(
        ranges.createIncludedProvider(createExcluders(), source.totalBlocks), maxBlocksPerChunk);
}

std::vector<CreateChunkRangeProvider::ProviderPointer> CreateChunkRangeProvider::createExcluders() const {
    std::vector<ProviderPointer> excluders;
    if (source.copiesEveryBlock) {
        return excluders;
    }
    addFileExcluders(excluders);
    if (source.isIncremental) {
        excluders.push_back(ranges.createUnchangedExcluder(source.incrementalBitmap));
    }
    addUnusedExcluder(excluders);
    return excluders;
}

void CreateChunkRangeProvider::addFileExcluders(std::vector<ProviderPointer>& excluders) const {
    for (const std::string& path : source.excludedFiles) {
        if (file::exists(path)) {
            excluders.push_back(ranges.createFileExcluder(path, isOtherCowFile(path)));
        }
    }
}

void CreateChunkRangeProvider::addUnusedExcluder(std::vector<ProviderPointer>& excluders) const {
    if (std::unique_ptr<fs::IBlockBitmapChunkProvider> usedBlocks = fileSystems.create()) {
        excluders.push_back(ranges.createUnusedExcluder(std::move(usedBlocks), source.isIncremental));
    }
}

bool CreateChunkRangeProvider::isOtherCowFile(const std::string& path) const {
    return source.isIncremental && snapshot_files::areBothCowFiles(path, source.incrementalBitmap.fileName);
}

std::string CreateChunkRangeProvider::getName() const {
    return "Create Chunk Range Provider";
}

} // namespace agent::core::backup::phase
