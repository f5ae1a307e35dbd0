#pragma once

#include "common/AlignedBuffer.h"
#include "core/block/IRangeFinder.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::core::block {

/// A chunk of a map in memory, and the ranges that a finder finds in it, one after the other. The chunk is
/// searched slice by slice with the same result as a search of the whole chunk, but only the ranges of one
/// slice are in memory: the ranges of a fragmented bitmap take 64 times its size.
/// Owns:    the buffer, which a copy of the object duplicates. The finder must outlive the object and its
///          copies.
/// Threads: one at a time.
/// Fails:   with the finder's exceptions, and with std::bad_alloc.
class MapChunk {
public:
    /// Has no buffer yet, and so no ranges.
    MapChunk(const IRangeFinder& finder, std::size_t bitsPerElement) noexcept
        : finder(&finder), bitsPerElement(bitsPerElement) {}
    MapChunk(const MapChunk& other);
    MapChunk& operator=(const MapChunk& other);
    MapChunk(MapChunk&&) noexcept = default;
    MapChunk& operator=(MapChunk&&) noexcept = default;
    ~MapChunk() = default;

    [[nodiscard]] bool hasBuffer() const noexcept { return !buffer.empty(); }
    void setBuffer(AlignedBuffer newBuffer) noexcept { buffer = std::move(newBuffer); }
    /// The buffer, to be filled before `search`.
    [[nodiscard]] std::uint8_t* data() noexcept;
    [[nodiscard]] std::size_t size() const noexcept { return buffer.size(); }
    /// How many elements the buffer holds.
    [[nodiscard]] std::uint64_t capacity() const noexcept { return buffer.size() * 8 / bitsPerElement; }

    /// Searches the first `elements` elements in the buffer, at most `capacity`, and moves to the first
    /// range.
    void search(std::uint64_t elements);

    [[nodiscard]] bool atEnd() const noexcept { return cursor == ranges.size(); }
    /// Relative to the start of the chunk.
    [[nodiscard]] const BlockRange& current() const noexcept { return ranges[cursor]; }
    void next();

private:
    void searchOn();
    [[nodiscard]] std::vector<BlockRange> searchSlice() const;
    void join(std::vector<BlockRange>&& found);
    [[nodiscard]] std::uint64_t sliceEnd() const noexcept;

    const IRangeFinder* finder;
    std::size_t bitsPerElement;
    AlignedBuffer buffer;
    std::uint64_t count = 0;        ///< elements in the buffer
    std::uint64_t searched = 0;     ///< how many of these elements have been searched
    BlockRange unfinished;          ///< a range that ends at `searched` and may continue
    std::vector<BlockRange> ranges; ///< the complete ranges of the current slice
    std::size_t cursor = 0;
};

} // namespace agent::core::block
