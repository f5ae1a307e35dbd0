#pragma once

#include <cstddef>
#include <cstdint>

/// Where the numbers of the era target's metadata stand, as the kernel has them (drivers/md/dm-era-target.c,
/// drivers/md/persistent-data). All are little endian. Offsets and sizes are in bytes.
namespace tolvubd::era {

inline constexpr std::size_t blockSize = 4096;

/// What tells one kind of block from another: each begins with the complement of the CRC-32C of all bytes
/// behind it, changed by a number of its kind, and says somewhere in which block of the device it stands.
struct BlockKind {
    std::uint32_t salt;
    std::size_t placeOffset;
};

namespace superblock {
inline constexpr BlockKind kind{146'538'381, 8};
inline constexpr std::uint64_t place = 0;
inline constexpr std::uint64_t magic = 2'126'579'579;
inline constexpr std::uint32_t version = 1;
inline constexpr std::size_t magicOffset = 32;            // 64 bits
inline constexpr std::size_t versionOffset = 40;          // 32
inline constexpr std::size_t dataBlockSizeOffset = 172;   // 32, in sectors
inline constexpr std::size_t blocksOffset = 180;          // 32, of the volume
inline constexpr std::size_t currentEraOffset = 184;      // 32
inline constexpr std::size_t currentWritesetOffset = 188; // a writeset
inline constexpr std::size_t writesetTreeOffset = 200;    // 64, the place of the root
inline constexpr std::size_t eraArrayOffset = 208;        // 64, likewise
inline constexpr std::size_t heldSnapshotOffset = 216;    // 64, the place of a superblock; 0 is none
inline constexpr std::uint32_t leastDataBlockSize = 8;    // a power of two divides all others
} // namespace superblock

/// The set of blocks that one era has written, in a bitset: an array of 64-bit words. A root of 0 is none.
namespace writeset {
inline constexpr std::size_t bitsOffset = 0; // 32, how many the set is of
inline constexpr std::size_t rootOffset = 4; // 64, the place of the array
inline constexpr std::size_t size = 12;
} // namespace writeset

/// A tree's node: a head, room for as many 64-bit keys as it says, and as many values.
namespace node {
inline constexpr BlockKind kind{121'107, 8};
inline constexpr std::size_t flagsOffset = 4;        // 32
inline constexpr std::size_t entriesOffset = 16;     // 32, in use
inline constexpr std::size_t mostEntriesOffset = 20; // 32, room
inline constexpr std::size_t valueSizeOffset = 24;   // 32
inline constexpr std::size_t keysOffset = 32;
inline constexpr std::uint32_t isInternal = 1; // flags; its values are the places of nodes
inline constexpr std::uint32_t isLeaf = 2;
} // namespace node

/// A part of an array: a head, and values without gaps. All parts but the last are full.
namespace array {
inline constexpr BlockKind kind{595'846'735, 16};
inline constexpr std::size_t mostEntriesOffset = 4; // 32, room
inline constexpr std::size_t entriesOffset = 8;     // 32, in use
inline constexpr std::size_t valueSizeOffset = 12;  // 32
inline constexpr std::size_t valuesOffset = 24;

constexpr std::size_t valuesInBlock(std::size_t valueSize) {
    return (blockSize - valuesOffset) / valueSize;
}
} // namespace array

} // namespace tolvubd::era
