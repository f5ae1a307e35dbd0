#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace os {

/// CRC-32C: the Castagnoli polynomial 0x1edc6f41, reflected. Continues `sum`, that of what came before, over
/// `bytes`; the sum of nothing is 0, and that of "123456789" 0xe3069283. The register is inverted before and
/// after, so the complement of the sum is what the kernel's crc32c(~0, ...) returns.
///
/// Eight bytes at a time by eight tables of 256 words ("slicing by 8"), which are made by the compiler.
std::uint32_t crc32c(std::uint32_t sum, std::span<const std::byte> bytes) noexcept;

} // namespace os
