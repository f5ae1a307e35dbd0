#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace agent::core::fs {

/// Numbers in structures on disk. The bytes of the number must lie within the structure: callers have a
/// structure of fixed size, or have checked the position.
using Bytes = std::span<const std::uint8_t>;

/// Of `Number`'s width at `offset`, the first byte the least significant.
template <typename Number>
constexpr Number littleEndian(Bytes bytes, std::size_t offset) {
    std::uint64_t value = 0;
    for (std::size_t i = sizeof(Number); i-- > 0;) {
        value = value << 8U | bytes[offset + i];
    }
    return static_cast<Number>(value);
}

/// Of `Number`'s width at `offset`, the first byte the most significant.
template <typename Number>
constexpr Number bigEndian(Bytes bytes, std::size_t offset) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i) {
        value = value << 8U | bytes[offset + i];
    }
    return static_cast<Number>(value);
}

} // namespace agent::core::fs
