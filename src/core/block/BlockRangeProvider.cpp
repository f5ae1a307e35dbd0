#include "core/block/BlockRangeProvider.h"

#include <algorithm>

namespace agent::core::block {

BlockRangeProvider::BlockRangeProvider(info::Logger& logger,
                                       std::vector<std::unique_ptr<IBlockRangeProvider>> excluders,
                                       std::uint64_t totalBlocks)
    : logger(logger), excluders(std::move(excluders)), totalBlocks(totalBlocks) {}

BlockRangeIterator BlockRangeProvider::begin() const {
    return handleOf(iterator(*this));
}

BlockRangeIterator BlockRangeProvider::end() const {
    return handleOf(iterator(*this, std::default_sentinel));
}

std::uint64_t BlockRangeProvider::size() const {
    std::uint64_t blocks = totalBlocks;
    for (const auto& excluder : excluders) {
        blocks -= excluder ? excluder->size() : 0;
    }
    return blocks;
}

std::string BlockRangeProvider::name() const {
    return "Included Block Range Provider";
}

BlockRangeProvider::iterator::iterator(const BlockRangeProvider& provider) : RangeIterator(provider) {
    for (const auto& excluder : provider.excluders) {
        if (excluder) {
            activeExcluders.push_back({excluder->begin(), {}, excluder.get()});
        }
    }
    advance();
}

BlockRangeProvider::iterator::iterator(const BlockRangeProvider& provider, std::default_sentinel_t /*end*/)
    : RangeIterator(provider), atEnd(true) {}

void BlockRangeProvider::iterator::advance() {
    while (!step()) {
    }
}

/// True if this step has found the next range or the end.
bool BlockRangeProvider::iterator::step() {
    if (atEnd || position >= provider->totalBlocks) {
        atEnd = true;
        return true;
    }
    const BlockRange nearest = nearestExclusion();
    const bool included = nearest.start > position;
    if (included) {
        current = {position, nearest.start - position};
    }
    position = nearest.end();
    return included;
}

/// The nearest range that excludes blocks from `position` on, or an empty range at the end of the volume.
BlockRange BlockRangeProvider::iterator::nearestExclusion() {
    BlockRange nearest{provider->totalBlocks, 0};
    for (auto active = activeExcluders.begin(); active != activeExcluders.end();) {
        active = isStillActive(*active, nearest) ? std::next(active) : activeExcluders.erase(active);
    }
    return nearest;
}

bool BlockRangeProvider::iterator::isStillActive(ActiveExcluder& active, BlockRange& nearest) const {
    try {
        if (findNext(active, nearest)) {
            return true;
        }
        info::LogEntry(provider->logger, info::level::debug)
            << "The " << active.excluder->name() << " has no more ranges to exclude after block "
            << current.start << ", it will no longer be used for this volume.";
    } catch (...) { // any failure: without this excluder the backup is larger, but still correct
        info::LogEntry(provider->logger, info::level::error, info::reason("excluder-failed"))
            << "The " << active.excluder->name()
            << " threw an exception while attempting to get an exclusion range! It will no longer be used "
               "for "
               "this volume.";
    }
    return false;
}

/// Advances an excluder to its first range that ends past `position`. False if there is none.
bool BlockRangeProvider::iterator::findNext(ActiveExcluder& active, BlockRange& nearest) const {
    if (!active.end) {
        active.end = active.excluder->end();
    }
    for (; active.next != active.end; ++active.next) {
        const BlockRange& range = *active.next;
        if (endsPastPosition(range)) {
            nearest = std::min(nearest, range);
            return true;
        }
    }
    return false;
}

/// A range whose end wraps around is invalid and excludes nothing, so that no block is left out wrongly.
bool BlockRangeProvider::iterator::endsPastPosition(const BlockRange& range) const {
    return range.end() > position && range.end() >= range.start;
}

} // namespace agent::core::block
