#include "core/block/ChunkRangeProvider.h"

#include <algorithm>
#include <stdexcept>

namespace agent::core::block {

ChunkRangeProvider::ChunkRangeProvider(info::Logger& logger, std::unique_ptr<IBlockRangeProvider> base,
                                       std::uint64_t maxBlocksPerChunk)
    : logger(logger), base(std::move(base)), maxBlocksPerChunk(maxBlocksPerChunk) {
    if (maxBlocksPerChunk == 0) {
        throw std::invalid_argument("Invalid max blocks per chunk!");
    }
}

BlockRangeIterator ChunkRangeProvider::begin() const {
    return handleOf(iterator(*this));
}

BlockRangeIterator ChunkRangeProvider::end() const {
    return handleOf(iterator(*this, std::default_sentinel));
}

std::uint64_t ChunkRangeProvider::size() const {
    return base ? base->size() : 0;
}

std::string ChunkRangeProvider::name() const {
    return "Chunk Block Range Provider";
}

ChunkRangeProvider::iterator::iterator(const ChunkRangeProvider& provider) : RangeIterator(provider) {
    if (!provider.base) {
        return;
    }
    range = provider.base->begin();
    rangeEnd = provider.base->end();
    atEnd = range == rangeEnd;
    if (!atEnd) {
        nextBlock = range->start;
        cut();
    }
}

ChunkRangeProvider::iterator::iterator(const ChunkRangeProvider& provider, std::default_sentinel_t /*end*/)
    : RangeIterator(provider) {}

void ChunkRangeProvider::iterator::advance() {
    if (!atEnd && (range->end() > nextBlock || nextRange())) {
        cut();
    }
}

/// Advances to the next range. False at the end.
bool ChunkRangeProvider::iterator::nextRange() {
    ++range;
    if (range == rangeEnd) {
        info::LogEntry(provider->logger, info::level::debug)
            << "No more block ranges have been provided, so there are no more chunks to copy";
        atEnd = true;
        current = {};
        return false;
    }
    nextBlock = range->start;
    if (isRangeLogged()) {
        info::LogEntry(provider->logger, info::level::debug)
            << "The next block range provided is (" << range->start << ", " << range->length << ")";
    }
    return true;
}

/// Whether ranges are logged. A volume can have millions of ranges, and asking the logger isn't free, so the
/// logger is asked once every 256 ranges. A new log level still takes effect soon.
bool ChunkRangeProvider::iterator::isRangeLogged() {
    constexpr std::uint64_t rangesBetween = 256;
    if (rangesSeen++ % rangesBetween == 0) {
        logsRanges = provider->logger.isEnabled(info::level::debug);
    }
    return logsRanges;
}

void ChunkRangeProvider::iterator::cut() {
    current = {nextBlock, std::min(provider->maxBlocksPerChunk, range->end() - nextBlock)};
    nextBlock = current.end();
}

} // namespace agent::core::block
