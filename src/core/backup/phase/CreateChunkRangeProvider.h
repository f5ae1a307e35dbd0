#pragma once

#include "core/block/BlockRangeProviderFactory.h"
#include "core/block/IncrementalBitmapInfo.h"
#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"
#include "core/operation/IPhase.h"

#include <memory>
#include <string>
#include <vector>

namespace agent::core::backup::phase {

/// Puts together which blocks are copied, in chunks that fit the copy's buffer: all, without those of the
/// driver's and the agent's own files, without those that nobody uses and, in an incremental backup, without
/// those that have not changed. A layer that can't be had leaves more blocks to copy. Where the numbers
/// of its blocks aren't the volume's, no layer can be trusted.
class CreateChunkRangeProvider : public IPhase {
public:
    using ProviderPointer = block::BlockRangeProviderFactory::ProviderPointer;

    /// What is known of the volume and its snapshot.
    struct Source {
        block::IncrementalBitmapInfo incrementalBitmap;
        std::vector<std::string> excludedFiles;
        std::uint64_t totalBlocks = 0;
        bool isIncremental = false;
        bool isWhole = false; ///< nothing is left out: the numbers of the blocks can't be trusted
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
    /// Whether a file is the CoW file that the record of changes is not read from.
    [[nodiscard]] bool isOtherCowFile(const std::string& path) const;

    const Source source;
    ProviderPointer& provider;
    const block::BlockRangeProviderFactory& ranges;
    fs::UsedBlockBitmapChunkProviderFactory& fileSystems;
    const std::uint64_t& maxBlocksPerChunk;
};

} // namespace agent::core::backup::phase
