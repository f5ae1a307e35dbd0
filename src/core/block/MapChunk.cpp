#include "core/block/MapChunk.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace agent::core::block {

namespace {

/// Small enough that a slice and all of its ranges stay in the processor's cache, and a multiple of 8, so
/// that slices of bits begin at a byte.
constexpr std::uint64_t sliceElements = std::uint64_t{256} * 1024;

AlignedBuffer copyOf(const AlignedBuffer& buffer) {
    AlignedBuffer copy(buffer.size(), buffer.alignment());
    if (!buffer.empty()) {
        std::memcpy(copy.data(), buffer.data(), buffer.size());
    }
    return copy;
}

} // namespace

MapChunk::MapChunk(const MapChunk& other)
    : finder(other.finder),
      bitsPerElement(other.bitsPerElement),
      buffer(copyOf(other.buffer)),
      count(other.count),
      searched(other.searched),
      unfinished(other.unfinished),
      ranges(other.ranges),
      cursor(other.cursor) {}

MapChunk& MapChunk::operator=(const MapChunk& other) {
    *this = MapChunk(other);
    return *this;
}

std::uint8_t* MapChunk::data() noexcept {
    return static_cast<std::uint8_t*>(static_cast<void*>(buffer.data()));
}

void MapChunk::search(std::uint64_t elements) {
    count = elements;
    searched = 0;
    unfinished = {};
    searchOn();
}

void MapChunk::next() {
    ++cursor;
    if (atEnd()) {
        searchOn();
    }
}

/// Searches slices until there is a complete range, or until the whole chunk has been searched.
void MapChunk::searchOn() {
    ranges.clear();
    cursor = 0;
    while (ranges.empty() && searched < count) {
        std::vector<BlockRange> found = searchSlice();
        searched = sliceEnd();
        join(std::move(found));
    }
}

std::uint64_t MapChunk::sliceEnd() const noexcept {
    return std::min(count, searched + sliceElements);
}

std::vector<BlockRange> MapChunk::searchSlice() const {
    const std::byte* const slice = buffer.data() + searched * bitsPerElement / 8;
    std::vector<BlockRange> found = finder->findRanges(slice, sliceEnd() - searched);
    for (BlockRange& range : found) {
        range.start += searched;
    }
    return found;
}

/// Joins the unfinished range with the ranges of the next slice, and sets the last range aside if it may
/// continue in the slice after that.
void MapChunk::join(std::vector<BlockRange>&& found) {
    ranges = std::move(found);
    if (!unfinished.empty()) {
        if (!ranges.empty() && ranges.front().start == unfinished.end()) {
            ranges.front() = {unfinished.start, unfinished.length + ranges.front().length};
        } else {
            ranges.insert(ranges.begin(), unfinished);
        }
        unfinished = {};
    }
    if (searched < count && !ranges.empty() && ranges.back().end() == searched) {
        unfinished = ranges.back();
        ranges.pop_back();
    }
}

} // namespace agent::core::block
