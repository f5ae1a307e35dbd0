#pragma once

#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

/// A map with one element for each block of a volume, handed out in pieces that fit a buffer. Which pieces
/// are asked for, and in which order, makes no difference: the map is the same.
/// Owns:    see the implementations.
/// Threads: one at a time.
/// Fails:   by a negative result, after a log line: an unreadable map makes a backup larger, never wrong. By
///          std::runtime_error where a kind of file system says so. What can't be read, or isn't there, is a
///          failure and never a different map. A failure isn't the end of the provider: asked again, it has
///          the right map or fails again.
class IBlockBitmapChunkProvider {
public:
    IBlockBitmapChunkProvider() = default;
    IBlockBitmapChunkProvider(const IBlockBitmapChunkProvider&) = delete;
    IBlockBitmapChunkProvider& operator=(const IBlockBitmapChunkProvider&) = delete;
    IBlockBitmapChunkProvider(IBlockBitmapChunkProvider&&) = delete;
    IBlockBitmapChunkProvider& operator=(IBlockBitmapChunkProvider&&) = delete;
    virtual ~IBlockBitmapChunkProvider() = default;

    /// Fills `buffer` from the element `startBlock` on, and writes nowhere else. Returns how many elements it
    /// now holds: one at least, 0 if there are none from there on, or a negative number. Elements behind the
    /// last one may be among them, as used ones. What the buffer has behind them, or after a failure, means
    /// nothing. A buffer that holds the whole map is filled from element 0 on; another start, or a smaller
    /// buffer, may be refused.
    virtual std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                        std::size_t bufferBytes) = 0;
    /// Whether the first block of a byte is its most significant bit. Stays the same.
    [[nodiscard]] virtual bool isBitmapMsbFirst() const { return false; }
    /// Bytes of the volume that an element stands for, as the map itself tells; 0 if it doesn't. Stays the
    /// same, too.
    [[nodiscard]] virtual std::uint32_t getBlockSize() const { return 0; }
};

} // namespace agent::core::fs
