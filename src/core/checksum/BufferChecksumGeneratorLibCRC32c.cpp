#include "core/checksum/BufferChecksumGeneratorLibCRC32c.h"

#include <array>

namespace agent {

namespace {

constexpr std::uint32_t reflectedPolynomial = 0x82f63b78;
constexpr std::size_t slice = 8;

using Tables = std::array<std::array<std::uint32_t, 256>, slice>;

/// Table 0 takes the register past one byte; table N past that byte and N zero bytes after it.
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

/// Little-endian, from any address.
std::uint32_t le32(const unsigned char* bytes) {
    return std::uint32_t{bytes[0]} | std::uint32_t{bytes[1]} << 8U | std::uint32_t{bytes[2]} << 16U |
           std::uint32_t{bytes[3]} << 24U;
}

/// The register after the next eight bytes. The first byte has seven after it, hence table 7.
std::uint32_t afterSlice(std::uint32_t crc, const unsigned char* bytes) {
    const std::uint32_t low = crc ^ le32(bytes);
    const std::uint32_t high = le32(bytes + 4);
    return tables[7][low & 0xffU] ^ tables[6][low >> 8U & 0xffU] ^ tables[5][low >> 16U & 0xffU] ^
           tables[4][low >> 24U] ^ tables[3][high & 0xffU] ^ tables[2][high >> 8U & 0xffU] ^
           tables[1][high >> 16U & 0xffU] ^ tables[0][high >> 24U];
}

/// Continues `crc`, the sum of what came before, over `size` more bytes.
std::uint32_t extend(std::uint32_t crc, const unsigned char* bytes, std::size_t size) {
    crc = ~crc;
    for (; size >= slice; size -= slice, bytes += slice) {
        crc = afterSlice(crc, bytes);
    }
    for (; size > 0; --size, ++bytes) {
        crc = crc >> 8U ^ tables[0][(crc ^ *bytes) & 0xffU];
    }
    return ~crc;
}

} // namespace

bool BufferChecksumGeneratorLibCRC32c::generate(const void* buffer, std::size_t size,
                                                std::uint32_t& out) const {
    out = extend(0, static_cast<const unsigned char*>(buffer), size);
    return true;
}

} // namespace agent
