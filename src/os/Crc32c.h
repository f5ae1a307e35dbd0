#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace os {

/// CRC-32C: the Castagnoli polynomial 0x1edc6f41, reflected, with the register inverted before and after. So
/// the sum of nothing is 0, that of "123456789" 0xe3069283, and the complement of a sum is what the kernel's
/// crc32c(~0, ...) returns.
///
/// Eight bytes at a time by eight tables of 256 words ("slicing by 8"), which are made by the compiler.
std::uint32_t crc32c(std::span<const std::byte> bytes) noexcept;

} // namespace os
