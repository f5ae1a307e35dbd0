#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tolvubd {

/// FNV-1a of 64 bits. Whatever is changed of one byte changes it; it is no protection from somebody who
/// means to deceive.
inline std::uint64_t checksumOf(std::span<const std::byte> bytes) {
    constexpr std::uint64_t basis = 0xCBF29CE484222325;
    constexpr std::uint64_t prime = 0x100000001B3;
    std::uint64_t sum = basis;
    for (const std::byte byte : bytes) {
        sum = (sum ^ std::to_integer<std::uint64_t>(byte)) * prime;
    }
    return sum;
}

} // namespace tolvubd
