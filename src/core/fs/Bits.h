#pragma once

#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

/// Copies `count` bits to a target whose bits are still 0. Bit 0 of a byte is its least significant bit. Only
/// the bytes that hold these bits are read or written.
void copyBits(std::uint8_t* target, std::uint64_t targetBit, const std::uint8_t* source,
              std::uint64_t sourceBit, std::uint64_t count);

/// Sets `count` bits to 1.
void setBits(std::uint8_t* map, std::uint64_t firstBit, std::uint64_t count);

/// Sets `count` bits to 0.
void clearBits(std::uint8_t* map, std::uint64_t firstBit, std::uint64_t count);

/// Sets all bytes of a map to 0, but doesn't write to pages that are already zero: the buffer for a map has
/// 40 MiB, and its untouched pages take no memory.
void clearMap(std::uint8_t* map, std::size_t bytes);

/// How many bits of the first `bytes` bytes are 0.
std::uint64_t countClearBits(const std::uint8_t* map, std::uint64_t bytes);

} // namespace agent::core::fs
