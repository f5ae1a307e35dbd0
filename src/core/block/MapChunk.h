#pragma once

#include "common/AlignedBuffer.h"
#include "core/block/IRangeFinder.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::core::block {

/// A part of a map in memory, and the ranges that a finder finds in it, one after the other. They are the
/// same as if the whole part were searched at once, but only those of a slice of it are kept: the ranges of a
/// busy bitmap take 64 times its own size.
/// Owns:    the buffer. A copy copies it; the finder must outlive both.
/// Threads: one at a time.
/// Fails:   as the finder does, and with std::bad_alloc.
class MapChunk {
public:
    /// Without a buffer, and so without ranges.
    MapChunk(const IRangeFinder& finder, std::size_t bitsPerElement) noexcept
        : finder(&finder), bitsPerElement(bitsPerElement) {}
    MapChunk(const MapChunk& other);
    MapChunk& operator=(const MapChunk& other);
    MapChunk(MapChunk&&) noexcept = default;
    MapChunk& operator=(MapChunk&&) noexcept = default;
    ~MapChunk() = default;

    [[nodiscard]] bool hasBuffer() const noexcept { return !buffer.empty(); }
    void setBuffer(AlignedBuffer newBuffer) noexcept { buffer = std::move(newBuffer); }
    /// What is written here shows in the ranges after `search`.
    [[nodiscard]] std::uint8_t* data() noexcept;
    [[nodiscard]] std::size_t size() const noexcept { return buffer.size(); }
    /// How many elements the buffer holds.
    [[nodiscard]] std::uint64_t capacity() const noexcept { return buffer.size() * 8 / bitsPerElement; }

    /// Starts on the ranges of the first `elements` in the buffer, which it has to hold.
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
    std::uint64_t searched = 0;     ///< elements of them that have been searched
    BlockRange unfinished;          ///< a range that ends with what has been searched, and may go on
    std::vector<BlockRange> ranges; ///< those that are known whole
    std::size_t cursor = 0;
};

} // namespace agent::core::block
