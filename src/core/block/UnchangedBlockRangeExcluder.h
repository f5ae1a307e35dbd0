#pragma once

#include "core/block/ChunkedBitmapBlockRangeExcluder.h"
#include "core/block/IncrementalBitmapInfo.h"

namespace agent::core::block {

/// The blocks that haven't changed since the last backup, by the snapshot driver's map.
/// Owns:    the map's provider, which gives one word for each unit of 4096 bytes.
/// Threads: one at a time.
/// Fails:   as its base. If the volume's blocks don't fit the units of the map, nothing is excluded.
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
