#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tolvubd {

/// FNV-1a with 64 bits. Detects every change of a single byte, but gives no protection from deliberate
/// changes.
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
