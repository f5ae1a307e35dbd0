#pragma once

#include "core/block/IBlockRangeProvider.h"
#include "core/block/IncrementalBitmapInfo.h"
#include "core/fs/IBlockBitmapChunkProvider.h"
#include "info/BackupableVolume.h"
#include "info/log/Logger.h"

#include <memory>
#include <string>
#include <vector>

namespace agent::core::block {

/// Creates the layers of providers that select which blocks of one volume are copied.
/// Owns:    a share of the volume's description.
/// Threads: one at a time.
/// Fails:   with std::invalid_argument for arguments that a layer can't work with.
class BlockRangeProviderFactory {
public:
    using ProviderPointer = std::unique_ptr<IBlockRangeProvider>;

    BlockRangeProviderFactory(info::Logger& logger, std::shared_ptr<const info::BackupableVolume> volume);
    BlockRangeProviderFactory(const BlockRangeProviderFactory&) = delete;
    BlockRangeProviderFactory& operator=(const BlockRangeProviderFactory&) = delete;
    BlockRangeProviderFactory(BlockRangeProviderFactory&&) = delete;
    BlockRangeProviderFactory& operator=(BlockRangeProviderFactory&&) = delete;
    virtual ~BlockRangeProviderFactory() = default;

    /// If `sized`, the excluder counts as empty in the estimate of the transfer size.
    [[nodiscard]] virtual ProviderPointer createFileExcluder(const std::string& path, bool sized) const;
    [[nodiscard]] virtual ProviderPointer
    createUnchangedExcluder(const IncrementalBitmapInfo& bitmapInfo) const;
    [[nodiscard]] virtual ProviderPointer
    createUnusedExcluder(std::unique_ptr<fs::IBlockBitmapChunkProvider> chunkProvider, bool sized) const;
    [[nodiscard]] virtual ProviderPointer createIncludedProvider(std::vector<ProviderPointer> excluders,
                                                                 std::uint64_t totalBlocks) const;
    [[nodiscard]] virtual ProviderPointer createChunkProvider(ProviderPointer base,
                                                              std::uint64_t maxBlocksPerChunk) const;

private:
    info::Logger& logger;
    std::shared_ptr<const info::BackupableVolume> volume;
};

} // namespace agent::core::block
