#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace agent::core::fs {

/// The bytes of an on-disk structure. When a number is read from it, the number must lie within it: callers
/// use a structure of fixed size, or have checked the offset.
using Bytes = std::span<const std::uint8_t>;

/// Reads a little-endian number of `Number`'s width at `offset`.
template <typename Number>
constexpr Number littleEndian(Bytes bytes, std::size_t offset) {
    std::uint64_t value = 0;
    for (std::size_t i = sizeof(Number); i-- > 0;) {
        value = value << 8U | bytes[offset + i];
    }
    return static_cast<Number>(value);
}

/// Reads a big-endian number of `Number`'s width at `offset`.
template <typename Number>
constexpr Number bigEndian(Bytes bytes, std::size_t offset) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i) {
        value = value << 8U | bytes[offset + i];
    }
    return static_cast<Number>(value);
}

} // namespace agent::core::fs
