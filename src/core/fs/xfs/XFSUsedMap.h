#pragma once

#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

/// The caller's buffer as a map of used blocks, built from the free blocks. An intact volume lists its free
/// blocks in ascending order. In that order, the bits between them are written only once, and free bits
/// aren't written at all. Any other order gives the same map.
/// Owns:    nothing; the buffer must outlive it.
/// Threads: one at a time.
/// Fails:   never.
class XFSUsedMap {
public:
    /// Clears the buffer. Its first bit stands for `firstBlock`, a multiple of 8.
    XFSUsedMap(std::uint8_t* buffer, std::size_t bytes, std::uint64_t firstBlock);

    /// Ignores blocks that the buffer doesn't cover.
    void markFree(std::uint64_t block, std::uint64_t count);
    /// Marks all other blocks in the first `bytes` bytes as used.
    void finish(std::size_t bytes);

    [[nodiscard]] std::uint64_t firstBlock() const noexcept { return first; }
    /// The first block past the buffer.
    [[nodiscard]] std::uint64_t endBlock() const noexcept { return first + bits; }

private:
    std::uint8_t* buffer;
    std::uint64_t bits;
    std::uint64_t first;
    std::uint64_t decided = 0; ///< bits before this one are final, unless they are marked free later
};

} // namespace agent::core::fs
