#pragma once

#include "core/block/ChunkedBitmapBlockRangeExcluder.h"
#include "core/block/IncrementalBitmapInfo.h"

namespace agent::core::block {

/// The blocks that haven't changed since the last backup, according to the snapshot driver's map.
/// Owns:    the map's provider, which has one word for each 4096 bytes of the volume.
/// Threads: one at a time.
/// Fails:   like ChunkedBitmapBlockRangeExcluder. Excludes nothing if the volume's block size isn't a power
///          of two.
class UnchangedBlockRangeExcluder : public ChunkedBitmapBlockRangeExcluder {
public:
    UnchangedBlockRangeExcluder(info::Logger& logger, std::shared_ptr<const info::BackupableVolume> volume,
                                IncrementalBitmapInfo bitmapInfo,
                                std::unique_ptr<fs::IBlockBitmapChunkProvider> chunkProvider,
                                const BitRangeFinderFactory& finderFactory);
    UnchangedBlockRangeExcluder(const UnchangedBlockRangeExcluder&) = delete;
    UnchangedBlockRangeExcluder& operator=(const UnchangedBlockRangeExcluder&) = delete;
    UnchangedBlockRangeExcluder(UnchangedBlockRangeExcluder&&) = delete;
    UnchangedBlockRangeExcluder& operator=(UnchangedBlockRangeExcluder&&) = delete;
    ~UnchangedBlockRangeExcluder() override;

    [[nodiscard]] std::uint64_t size() const override;
    [[nodiscard]] std::string name() const override;
    [[nodiscard]] std::size_t bitmapBufferSize() const override;
    [[nodiscard]] BlockRange toBlockRange(const BlockRange& range, std::uint64_t chunkStart) const override;

private:
    class Impl;
    std::unique_ptr<const Impl> impl;
};

} // namespace agent::core::block
