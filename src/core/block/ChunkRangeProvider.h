#pragma once

#include "core/block/IBlockRangeProvider.h"
#include "core/block/RangeIterator.h"
#include "info/log/Logger.h"

#include <iterator>
#include <memory>

namespace agent::core::block {

/// Cuts each range of another provider into chunks that fit a buffer.
/// Owns:    the other provider; if that is null, there are no chunks.
/// Threads: one at a time.
/// Fails:   passes the other provider's exceptions on; the constructor throws std::invalid_argument if
///          `maxBlocksPerChunk` is 0.
class ChunkRangeProvider : public IBlockRangeProvider {
public:
    class iterator;

    ChunkRangeProvider(info::Logger& logger, std::unique_ptr<IBlockRangeProvider> base,
                       std::uint64_t maxBlocksPerChunk);

    [[nodiscard]] BlockRangeIterator begin() const override;
    [[nodiscard]] BlockRangeIterator end() const override;
    [[nodiscard]] std::uint64_t size() const override;
    [[nodiscard]] std::string name() const override;

private:
    info::Logger& logger;
    std::unique_ptr<IBlockRangeProvider> base;
    std::uint64_t maxBlocksPerChunk;
};

class ChunkRangeProvider::iterator : public RangeIterator<ChunkRangeProvider::iterator, ChunkRangeProvider> {
public:
    /// At the first chunk.
    explicit iterator(const ChunkRangeProvider& provider);
    /// At the end.
    iterator(const ChunkRangeProvider& provider, std::default_sentinel_t end);

private:
    friend RangeIterator;

    [[nodiscard]] bool isAtEnd() const { return atEnd; }
    [[nodiscard]] const BlockRange& currentRange() const { return current; }
    void advance();
    bool nextRange();
    bool isRangeLogged();
    void cut();

    BlockRangeIterator range; ///< the range that is being cut
    BlockRangeIterator rangeEnd;
    std::uint64_t nextBlock = 0; ///< the first block past the current chunk
    BlockRange current;
    bool atEnd = true;
    std::uint64_t rangesSeen = 0; ///< without the first range
    bool logsRanges = false;
};

} // namespace agent::core::block
