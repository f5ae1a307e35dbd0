#pragma once

#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

/// Copies `count` bits into bits that are 0 so far. Bit 0 of a byte is its least significant one. Neither
/// map is touched outside of the bytes that hold the bits.
void copyBits(std::uint8_t* target, std::uint64_t targetBit, const std::uint8_t* source,
              std::uint64_t sourceBit, std::uint64_t count);

/// Sets `count` bits to 1.
void setBits(std::uint8_t* map, std::uint64_t firstBit, std::uint64_t count);

/// Sets `count` bits to 0.
void clearBits(std::uint8_t* map, std::uint64_t firstBit, std::uint64_t count);

/// Sets all bytes of a map to 0, and writes no page of zeros: the buffer for a map has 40 MiB, and what of it
/// was never written takes no memory.
void clearMap(std::uint8_t* map, std::size_t bytes);

/// How many bits of so many bytes are 0.
std::uint64_t countClearBits(const std::uint8_t* map, std::uint64_t bytes);

} // namespace agent::core::fs
