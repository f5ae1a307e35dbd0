#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::contract {

/// A map as in a buffer; the first block of each byte is in its least significant bit.
struct ElementMap {
    explicit ElementMap(std::uint64_t size = 0, std::size_t elementBits = 1)
        : size(size), elementBits(elementBits), bytes(roomFor(size)) {}

    /// How many bytes a buffer for `elements` elements needs.
    [[nodiscard]] std::size_t roomFor(std::uint64_t elements) const {
        return (elements * elementBits + 7) / 8;
    }
    [[nodiscard]] bool bit(std::uint64_t index) const { return (bytes[index / 8] >> (index % 8) & 1) != 0; }
    void setBit(std::uint64_t index) { bytes[index / 8] |= static_cast<std::uint8_t>(1U << (index % 8)); }

    std::uint64_t size;      ///< elements
    std::size_t elementBits; ///< 1, or 64 if an element is a word
    std::vector<std::uint8_t> bytes;
};

} // namespace agent::contract
