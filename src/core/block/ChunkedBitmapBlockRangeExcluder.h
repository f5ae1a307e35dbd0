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

/// The ranges of clear elements in a map that is too large for memory and is fetched chunk by chunk.
/// Owns:    the map's provider. Each iterator has its own chunk, and fetches the map from the start.
/// Threads: one at a time.
/// Fails:   an unreadable map ends where reading fails, so that more blocks are copied; std::bad_alloc if
///          there is no memory for the buffer.
class ChunkedBitmapBlockRangeExcluder : public IBlockRangeProvider {
public:
    class iterator;

    [[nodiscard]] BlockRangeIterator begin() const override;
    [[nodiscard]] BlockRangeIterator end() const override;

    /// The buffer size for one chunk, in bytes.
    [[nodiscard]] virtual std::size_t bitmapBufferSize() const = 0;
    /// Converts a range of elements, relative to the chunk that begins at `chunkStart`, to volume blocks.
    [[nodiscard]] virtual BlockRange toBlockRange(const BlockRange& range,
                                                  std::uint64_t chunkStart) const = 0;

protected:
    /// `finderType` is a constant of BitRangeFinderFactory.
    ChunkedBitmapBlockRangeExcluder(info::Logger& logger,
                                    std::shared_ptr<const info::BackupableVolume> volume,
                                    std::unique_ptr<fs::IBlockBitmapChunkProvider> chunkProvider,
                                    const BitRangeFinderFactory& finderFactory, int finderType);

    [[nodiscard]] const info::BackupableVolume& getVolume() const noexcept { return *volume; }

private:
    [[nodiscard]] bool isPastVolume(std::uint64_t element) const;

    info::Logger& logger;
    std::shared_ptr<const info::BackupableVolume> volume;
    std::unique_ptr<fs::IBlockBitmapChunkProvider> chunkProvider;
    std::unique_ptr<IRangeFinder> rangeFinder;
    std::size_t bitsPerElement;
};

class ChunkedBitmapBlockRangeExcluder::iterator
    : public RangeIterator<ChunkedBitmapBlockRangeExcluder::iterator, ChunkedBitmapBlockRangeExcluder> {
public:
    /// At the first range; fetches chunks until it finds one.
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
    std::uint64_t nextElement = 0; ///< the next element to fetch
    std::uint64_t chunkStart = 0;  ///< the chunk's first element
    MapChunk chunk;
    BlockRange current; ///< in volume blocks
};

} // namespace agent::core::block
