#pragma once

#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

/// A map with one element for each block of a volume, handed out in pieces that fit a buffer. The pieces may
/// be requested in any order; the map stays the same.
/// Owns:    what it has read from the volume or the map's file; a reader passed to it must outlive it.
/// Threads: one at a time.
/// Fails:   by a negative result, after a log line: an unreadable map makes a backup larger, never wrong.
///          Some file-system parsers also throw std::runtime_error and say so. An unreadable or missing part
///          of a map is a failure, never a wrong map. The provider stays usable after a failure: the next
///          call returns the right map or fails again.
class IBlockBitmapChunkProvider {
public:
    IBlockBitmapChunkProvider() = default;
    IBlockBitmapChunkProvider(const IBlockBitmapChunkProvider&) = delete;
    IBlockBitmapChunkProvider& operator=(const IBlockBitmapChunkProvider&) = delete;
    IBlockBitmapChunkProvider(IBlockBitmapChunkProvider&&) = delete;
    IBlockBitmapChunkProvider& operator=(IBlockBitmapChunkProvider&&) = delete;
    virtual ~IBlockBitmapChunkProvider() = default;

    /// Fills `buffer` with elements, starting with the element `startBlock`, and returns how many `buffer`
    /// holds now: at least one, 0 if none are left from `startBlock` on, or a negative number on failure. The
    /// count may include elements past the end of the map, which are marked as used. The rest of the buffer,
    /// and all of it after a failure, is undefined. Every provider can fill a buffer that holds the whole
    /// map, from element 0; it may refuse another start or a smaller buffer.
    virtual std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                        std::size_t bufferBytes) = 0;
    /// Whether the first block of a byte is its most significant bit. Never changes.
    [[nodiscard]] virtual bool isBitmapMsbFirst() const { return false; }
    /// How many bytes of the volume one element stands for, according to the map's own metadata; 0 if it has
    /// none. Never changes.
    [[nodiscard]] virtual std::uint32_t getBlockSize() const { return 0; }
};

} // namespace agent::core::fs
