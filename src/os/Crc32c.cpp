#include "os/Crc32c.h"

#include <array>

namespace os {

namespace {

constexpr std::uint32_t reflectedPolynomial = 0x82f63b78;
constexpr std::size_t slice = 8;

using Tables = std::array<std::array<std::uint32_t, 256>, slice>;

/// Table 0 advances the CRC register by one byte; table N advances it by that byte and N zero bytes after it.
constexpr Tables makeTables() {
    Tables tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = crc >> 1U ^ ((crc & 1U) != 0 ? reflectedPolynomial : 0U);
        }
        tables[0][byte] = crc;
    }
    for (std::size_t zeros = 1; zeros < slice; ++zeros) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t before = tables[zeros - 1][byte];
            tables[zeros][byte] = before >> 8U ^ tables[0][before & 0xffU];
        }
    }
    return tables;
}

constexpr Tables tables = makeTables();

/// Reads a little-endian word from any address, aligned or not.
std::uint32_t le32(const std::byte* bytes) {
    return std::to_integer<std::uint32_t>(bytes[0]) | std::to_integer<std::uint32_t>(bytes[1]) << 8U |
           std::to_integer<std::uint32_t>(bytes[2]) << 16U | std::to_integer<std::uint32_t>(bytes[3]) << 24U;
}

/// Returns the CRC register after the next eight bytes. Seven bytes follow the first one, hence table 7.
std::uint32_t afterSlice(std::uint32_t crc, const std::byte* bytes) {
    const std::uint32_t low = crc ^ le32(bytes);
    const std::uint32_t high = le32(bytes + 4);
    return tables[7][low & 0xffU] ^ tables[6][low >> 8U & 0xffU] ^ tables[5][low >> 16U & 0xffU] ^
           tables[4][low >> 24U] ^ tables[3][high & 0xffU] ^ tables[2][high >> 8U & 0xffU] ^
           tables[1][high >> 16U & 0xffU] ^ tables[0][high >> 24U];
}

} // namespace

std::uint32_t crc32c(std::span<const std::byte> bytes) noexcept {
    const Crc32cFunction byInstruction = crc32cByInstruction();
    return byInstruction != nullptr ? byInstruction(bytes) : crc32cByTables(bytes);
}

std::uint32_t crc32cByTables(std::span<const std::byte> bytes) noexcept {
    std::uint32_t crc = 0xffffffff;
    for (; bytes.size() >= slice; bytes = bytes.subspan(slice)) {
        crc = afterSlice(crc, bytes.data());
    }
    for (const std::byte byte : bytes) {
        crc = crc >> 8U ^ tables[0][(crc ^ std::to_integer<std::uint32_t>(byte)) & 0xffU];
    }
    return ~crc;
}

} // namespace os
