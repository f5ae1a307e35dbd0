#pragma once

#include "core/block/ChunkedBitmapBlockRangeExcluder.h"

namespace agent::core::block {

/// The blocks that a volume's file system doesn't use, according to its own bitmap.
/// Owns:    the bitmap's provider, which has one bit for each block.
/// Threads: one at a time.
/// Fails:   like ChunkedBitmapBlockRangeExcluder; `size` throws PosixError if the free space can't be
///          queried.
class UnusedBlockRangeExcluder : public ChunkedBitmapBlockRangeExcluder {
public:
    UnusedBlockRangeExcluder(info::Logger& logger, std::shared_ptr<const info::BackupableVolume> volume,
                             std::unique_ptr<fs::IBlockBitmapChunkProvider> chunkProvider,
                             const BitRangeFinderFactory& finderFactory);

    [[nodiscard]] std::uint64_t size() const override;
    [[nodiscard]] std::string name() const override;
    [[nodiscard]] std::size_t bitmapBufferSize() const override;
    [[nodiscard]] BlockRange toBlockRange(const BlockRange& range, std::uint64_t chunkStart) const override;
};

} // namespace agent::core::block
