#pragma once

#include "core/block/BlockRangeProviderFactory.h"
#include "core/block/IncrementalBitmapInfo.h"
#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"
#include "core/operation/IPhase.h"

#include <memory>
#include <string>
#include <vector>

namespace agent::core::backup::phase {

/// Determines which blocks are copied, in chunks that fit the copy's buffer: all blocks except those of the
/// driver's and the agent's own files, unused blocks and, in an incremental backup, unchanged blocks. If one
/// of these layers is unavailable, more blocks are copied. If the file system's block size isn't the
/// volume's, no layer can be trusted, and every block is copied.
class CreateChunkRangeProvider : public IPhase {
public:
    using ProviderPointer = block::BlockRangeProviderFactory::ProviderPointer;

    /// The properties of the volume and its snapshot that decide which blocks are copied.
    struct Source {
        block::IncrementalBitmapInfo incrementalBitmap;
        std::vector<std::string> excludedFiles;
        std::uint64_t totalBlocks = 0;
        bool isIncremental = false;
        bool copiesEveryBlock = false; ///< copy every block, because the block size can't be trusted
    };

    /// Fills `provider`.
    CreateChunkRangeProvider(Source source, ProviderPointer& provider,
                             const block::BlockRangeProviderFactory& ranges,
                             fs::UsedBlockBitmapChunkProviderFactory& fileSystems,
                             const std::uint64_t& maxBlocksPerChunk);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    [[nodiscard]] std::vector<ProviderPointer> createExcluders() const;
    void addFileExcluders(std::vector<ProviderPointer>& excluders) const;
    void addUnusedExcluder(std::vector<ProviderPointer>& excluders) const;
    /// Whether `path` is the CoW file that doesn't hold the change record.
    [[nodiscard]] bool isOtherCowFile(const std::string& path) const;

    const Source source;
    ProviderPointer& provider;
    const block::BlockRangeProviderFactory& ranges;
    fs::UsedBlockBitmapChunkProviderFactory& fileSystems;
    const std::uint64_t& maxBlocksPerChunk;
};

} // namespace agent::core::backup::phase
