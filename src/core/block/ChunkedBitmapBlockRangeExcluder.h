#pragma once

#include "core/block/BitRangeFinderFactory.h"
#include "core/block/IBlockRangeProvider.h"
#include "core/block/MapChunk.h"
#include "core/block/RangeIterator.h"
#include "core/fs/IBlockBitmapChunkProvider.h"
#include "info/BackupableVolume.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <iterator>
#include <memory>

namespace agent::core::block {

/// The ranges of clear elements in a map that is too large for memory: it is fetched chunk by chunk.
/// Owns:    the map's provider. Each iterator has a chunk of its own, and fetches the map from its start.
/// Threads: one at a time.
/// Fails:   a map that can't be read ends where it fails, so that more is copied; only a buffer that can't be
///          had is an exception.
class ChunkedBitmapBlockRangeExcluder : public IBlockRangeProvider {
public:
    class iterator;

    [[nodiscard]] BlockRangeIterator begin() const override;
    [[nodiscard]] BlockRangeIterator end() const override;

    /// In bytes, for one fetch.
    [[nodiscard]] virtual std::size_t bitmapBufferSize() const = 0;
    /// The volume blocks of a range of elements relative to the chunk that begins at `chunkStart`.
    [[nodiscard]] virtual BlockRange toBlockRange(const BlockRange& range,
                                                  std::uint64_t chunkStart) const = 0;

protected:
    /// `finderType` is one of BitRangeFinderFactory's.
    ChunkedBitmapBlockRangeExcluder(info::Logger& logger,
                                    std::shared_ptr<const info::BackupableVolume> volume,
                                    std::unique_ptr<fs::IBlockBitmapChunkProvider> chunkProvider,
                                    const BitRangeFinderFactory& finderFactory, int finderType);

    [[nodiscard]] const info::BackupableVolume& getVolume() const noexcept { return *volume; }

private:
    [[nodiscard]] bool isBehindVolume(std::uint64_t element) const;

    info::Logger& logger;
    std::shared_ptr<const info::BackupableVolume> volume;
    std::unique_ptr<fs::IBlockBitmapChunkProvider> chunkProvider;
    std::unique_ptr<IRangeFinder> rangeFinder;
    std::size_t bitsPerElement;
};

class ChunkedBitmapBlockRangeExcluder::iterator
    : public RangeIterator<ChunkedBitmapBlockRangeExcluder::iterator, ChunkedBitmapBlockRangeExcluder> {
public:
    /// At the first range, for which it fetches.
    explicit iterator(const ChunkedBitmapBlockRangeExcluder& excluder);
    /// At the end; it never fetches.
    iterator(const ChunkedBitmapBlockRangeExcluder& excluder, std::default_sentinel_t end);

private:
    friend RangeIterator;

    [[nodiscard]] bool isAtEnd() const { return chunk.atEnd(); }
    [[nodiscard]] const BlockRange& currentRange() const { return current; }
    void advance();
    void fetchRanges();
    void fetch();
    void prepareBuffer();
    [[nodiscard]] bool isUsable(std::int64_t fetched) const;

    bool moreToFetch;
    std::uint64_t nextElement = 0; ///< to fetch
    std::uint64_t chunkStart = 0;  ///< the chunk's first element
    MapChunk chunk;
    BlockRange current; ///< in volume blocks
};

} // namespace agent::core::block
