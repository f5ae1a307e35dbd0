#pragma once

#include <cstdint>

/// The layout that CoW files and the incremental history share; docs/formats/cow.md describes it.
namespace agent::info::cow {

inline constexpr std::uint32_t magic = 4776;
/// Where the table of changed blocks begins. The header takes the space before it.
inline constexpr std::uint64_t tableOffset = 4096;
/// How many bytes of the volume one entry of the table stands for.
inline constexpr std::uint64_t blockSize = 4096;
inline constexpr std::uint64_t entrySize = sizeof(std::uint64_t);

/// The size in bytes of the table for a volume of `volumeSize` bytes. The last block may be a partial one.
constexpr std::uint64_t tableSize(std::uint64_t volumeSize) {
    return (volumeSize / blockSize + (volumeSize % blockSize != 0 ? 1 : 0)) * entrySize;
}

} // namespace agent::info::cow
