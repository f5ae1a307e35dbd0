#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace os {

/// CRC-32C: the Castagnoli polynomial 0x1edc6f41, reflected, with the register inverted before and after. So
/// the checksum of no bytes is 0, and that of "123456789" is 0xe3069283. The kernel's crc32c(~0, ...) returns
/// the complement of this checksum.
///
/// Uses the processor's CRC-32C instruction if it has one, tables otherwise.
std::uint32_t crc32c(std::span<const std::byte> bytes) noexcept;

/// An implementation of crc32c; all of them return the same checksum.
using Crc32cFunction = std::uint32_t (*)(std::span<const std::byte>) noexcept;

/// Processes eight bytes at a time with eight tables of 256 words ("slicing by 8"), computed at compile time.
std::uint32_t crc32cByTables(std::span<const std::byte> bytes) noexcept;

/// Returns the implementation that processes eight bytes at a time with the SSE 4.2 instruction `crc32`, or
/// null if this processor doesn't have it.
Crc32cFunction crc32cByInstruction() noexcept;

} // namespace os
