#pragma once

#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

/// The caller's buffer as a map of used blocks, made from the free ones. These come in ascending order from a
/// sound volume, so that what lies between them is written once, and what is free is not written at all; in
/// any other order the map is the same.
class XFSUsedMap {
public:
    /// Clears the buffer. Its first bit stands for `firstBlock`, a multiple of 8.
    XFSUsedMap(std::uint8_t* buffer, std::size_t bytes, std::uint64_t firstBlock);

    /// Blocks that the buffer doesn't cover are passed over.
    void markFree(std::uint64_t block, std::uint64_t count);
    /// All that wasn't marked free, in so many bytes, is used.
    void finish(std::size_t bytes);

    [[nodiscard]] std::uint64_t firstBlock() const noexcept { return first; }
    /// The first block behind the buffer.
    [[nodiscard]] std::uint64_t endBlock() const noexcept { return first + bits; }

private:
    std::uint8_t* buffer;
    std::uint64_t bits;
    std::uint64_t first;
    std::uint64_t decided = 0; ///< the bits before this one are final unless they are marked free
};

} // namespace agent::core::fs
