#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace agent::test {

constexpr std::uint32_t castagnoli = 0x82f63b78;

/// A CRC-32 with a reflected polynomial, computed straight from its definition, one bit at a time.
inline std::uint32_t crcByDefinition(std::uint32_t reflectedPolynomial, std::span<const std::byte> bytes) {
    std::uint32_t crc = 0xffffffff;
    for (const std::byte byte : bytes) {
        crc ^= std::to_integer<std::uint32_t>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1U) != 0 ? crc >> 1U ^ reflectedPolynomial : crc >> 1U;
        }
    }
    return ~crc;
}

} // namespace agent::test
