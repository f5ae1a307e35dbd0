#pragma once

#include "core/block/IBlockRangeProvider.h"
#include "core/block/RangeIterator.h"
#include "info/log/Logger.h"

#include <iterator>
#include <memory>

namespace agent::core::block {

/// Another provider's ranges, each cut from its start into chunks that fit a buffer.
/// Owns:    the other provider; without one there are no chunks.
/// Threads: one at a time.
/// Fails:   as the other provider; the constructor throws std::invalid_argument if no block fits a chunk.
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

    BlockRangeIterator range; ///< which is being cut
    BlockRangeIterator rangeEnd;
    std::uint64_t nextBlock = 0; ///< the first block behind the current chunk
    BlockRange current;
    bool atEnd = true;
    std::uint64_t rangesSeen = 0; ///< but for the first
    bool logsRanges = false;
};

} // namespace agent::core::block
