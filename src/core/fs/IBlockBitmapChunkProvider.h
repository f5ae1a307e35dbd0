#pragma once

#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

/// A map with one element for each block of a volume, handed out in pieces that fit a buffer.
/// Owns:    see the implementations.
/// Threads: one at a time.
/// Fails:   by a negative result, after a log line: an unreadable map makes a backup larger, never wrong.
class IBlockBitmapChunkProvider {
public:
    IBlockBitmapChunkProvider() = default;
    IBlockBitmapChunkProvider(const IBlockBitmapChunkProvider&) = delete;
    IBlockBitmapChunkProvider& operator=(const IBlockBitmapChunkProvider&) = delete;
    IBlockBitmapChunkProvider(IBlockBitmapChunkProvider&&) = delete;
    IBlockBitmapChunkProvider& operator=(IBlockBitmapChunkProvider&&) = delete;
    virtual ~IBlockBitmapChunkProvider() = default;

    /// Fills `buffer` from the element `startBlock` on. Returns how many elements it now holds, 0 if there
    /// are none from there on, or a negative number.
    virtual std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                        std::size_t bufferBytes) = 0;
    /// Whether the first block of a byte is its most significant bit.
    [[nodiscard]] virtual bool isBitmapMsbFirst() const { return false; }
    /// Bytes of the volume that an element stands for, as the map itself tells; 0 if it doesn't.
    [[nodiscard]] virtual std::uint32_t getBlockSize() const { return 0; }
};

} // namespace agent::core::fs
