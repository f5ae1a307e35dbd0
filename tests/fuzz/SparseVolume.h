#pragma once

#include "support/MemoryVolume.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace agent::fuzz {

/// A volume, and how to read it, decoded from the bytes of an input. Little-endian:
///
///     u8  log2 of the sector size, modulo 4, from 512 on
///     u8  buffer size in units of 256 bytes, less one
///     u16 start block, in units of 8
///     u32 size of the device in KiB
///     u32 offset on the device in units of 64 bytes, u8 length in the same unit, the bytes; and so on
///
/// Bytes that no record covers are zeros, so that a few hundred bytes make a file system.
class SparseVolume {
public:
    explicit SparseVolume(std::span<const std::uint8_t> input)
        : rest(input),
          sectorSize(512U << number(1) % 4),
          bufferBytes((number(1) + 1) * 256),
          startBlock(number(2) * 8),
          volume(std::min<std::uint64_t>(number(4), largestVolume) * 1024) {
        while (!rest.empty()) {
            const std::uint64_t offset = number(4) * unit;
            const std::size_t wanted = number(1) * unit;
            const std::size_t length = std::min(wanted, rest.size());
            volume.write(offset, rest.first(length));
            rest = rest.subspan(length);
        }
    }

private:
    static constexpr std::size_t unit = 64;
    static constexpr std::uint64_t largestVolume = std::uint64_t{1024} * 1024; // KiB

    /// Takes a number of `width` bytes. Bytes that the input lacks are zeros.
    std::uint64_t number(std::size_t width) {
        std::uint64_t value = 0;
        const std::size_t present = std::min(width, rest.size());
        for (std::size_t i = 0; i < present; ++i) {
            value |= std::uint64_t{rest[i]} << (8 * i);
        }
        rest = rest.subspan(present);
        return value;
    }

    std::span<const std::uint8_t> rest;

public:
    std::uint32_t sectorSize;
    std::size_t bufferBytes;
    std::uint64_t startBlock;
    test::MemoryVolume volume;
};

} // namespace agent::fuzz
