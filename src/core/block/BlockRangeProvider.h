#pragma once

#include "core/block/IBlockRangeProvider.h"
#include "core/block/RangeIterator.h"
#include "info/log/Logger.h"

#include <iterator>
#include <memory>
#include <vector>

namespace agent::core::block {

/// The blocks of a volume that no excluder excludes, as the longest possible ranges.
/// Owns:    the excluders.
/// Threads: one at a time.
/// Fails:   if an excluder throws during iteration, it is dropped, and its remaining blocks are included;
///          `begin` throws what an excluder's `begin` throws.
class BlockRangeProvider : public IBlockRangeProvider {
public:
    class iterator;

    /// An excluder may be null.
    BlockRangeProvider(info::Logger& logger, std::vector<std::unique_ptr<IBlockRangeProvider>> excluders,
                       std::uint64_t totalBlocks);

    [[nodiscard]] BlockRangeIterator begin() const override;
    [[nodiscard]] BlockRangeIterator end() const override;
    [[nodiscard]] std::uint64_t size() const override;
    [[nodiscard]] std::string name() const override;

private:
    info::Logger& logger;
    std::vector<std::unique_ptr<IBlockRangeProvider>> excluders;
    std::uint64_t totalBlocks;
};

/// Subtracts all excluders from the volume in one pass. Each excluder waits at its first range that ends past
/// `position`, and the nearest of these ranges ends the next included range.
class BlockRangeProvider::iterator : public RangeIterator<BlockRangeProvider::iterator, BlockRangeProvider> {
public:
    /// At the first range.
    explicit iterator(const BlockRangeProvider& provider);
    /// At the end.
    iterator(const BlockRangeProvider& provider, std::default_sentinel_t end);

private:
    friend RangeIterator;

    [[nodiscard]] bool isAtEnd() const { return atEnd; }
    [[nodiscard]] const BlockRange& currentRange() const { return current; }
    void advance();
    struct ActiveExcluder {
        BlockRangeIterator next;
        BlockRangeIterator end; ///< empty until it is first needed
        const IBlockRangeProvider* excluder;
    };

    bool step();
    BlockRange nearestExclusion();
    bool findNext(ActiveExcluder& active, BlockRange& nearest) const;
    bool isStillActive(ActiveExcluder& active, BlockRange& nearest) const;
    [[nodiscard]] bool endsPastPosition(const BlockRange& range) const;

    std::vector<ActiveExcluder> activeExcluders;
    BlockRange current;
    std::uint64_t position = 0; ///< the first block that hasn't been decided yet
    bool atEnd = false;
};

} // namespace agent::core::block
