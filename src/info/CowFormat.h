#pragma once

#include <cstdint>

/// The layout that CoW files and the incremental history share; docs/formats/cow.md describes it.
namespace agent::info::cow {

inline constexpr std::uint32_t magic = 4776;
/// The table of changed blocks begins behind the header's area.
inline constexpr std::uint64_t tableOffset = 4096;
/// One entry stands for this much of the volume.
inline constexpr std::uint64_t blockSize = 4096;
inline constexpr std::uint64_t entrySize = sizeof(std::uint64_t);

/// Bytes that the table of a volume of `volumeSize` bytes takes. A last block may be a part of one.
constexpr std::uint64_t tableSize(std::uint64_t volumeSize) {
    return (volumeSize / blockSize + (volumeSize % blockSize != 0 ? 1 : 0)) * entrySize;
}

} // namespace agent::info::cow
