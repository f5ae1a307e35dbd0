#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace os {

/// CRC-32C: the Castagnoli polynomial 0x1edc6f41, reflected, with the register inverted before and after. So
/// the sum of nothing is 0, that of "123456789" 0xe3069283, and the complement of a sum is what the kernel's
/// crc32c(~0, ...) returns.
///
/// By the processor's instruction where it has one, by tables elsewhere.
std::uint32_t crc32c(std::span<const std::byte> bytes) noexcept;

/// One of the ways to the same sum.
using Crc32cWay = std::uint32_t (*)(std::span<const std::byte>) noexcept;

/// Eight bytes at a time by eight tables of 256 words ("slicing by 8"), which are made by the compiler.
std::uint32_t crc32cByTables(std::span<const std::byte> bytes) noexcept;

/// Eight bytes at a time by the instruction `crc32` of SSE 4.2. Null if this processor has none.
Crc32cWay crc32cByInstruction() noexcept;

} // namespace os
