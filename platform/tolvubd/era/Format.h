#pragma once

#include <cstddef>
#include <cstdint>

/// Offsets and constants of the era target's metadata, as the kernel defines them
/// (drivers/md/dm-era-target.c, drivers/md/persistent-data). All numbers are little endian. Offsets and sizes
/// are in bytes. The comment after an offset begins with the width of the number in bits.
namespace tolvubd::era {

inline constexpr std::size_t blockSize = 4096;

/// The properties of a kind of block. Each block begins with the complement of the CRC-32C of the bytes after
/// it, xored with the kind's salt, and stores its own block number at `placeOffset`.
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
inline constexpr std::size_t writesetTreeOffset = 200;    // 64, the block number of the root
inline constexpr std::size_t eraArrayOffset = 208;        // 64, likewise
inline constexpr std::size_t heldSnapshotOffset = 216;    // 64, the block number of a superblock; 0 for none
inline constexpr std::uint32_t leastDataBlockSize = 8;    // all block sizes are multiples of it
} // namespace superblock

/// The blocks written in one era, as a bitset: an array of 64-bit words. A root of 0 means no set.
namespace writeset {
inline constexpr std::size_t bitsOffset = 0; // 32, the number of bits in the set
inline constexpr std::size_t rootOffset = 4; // 64, the block number of the array's root
inline constexpr std::size_t size = 12;
} // namespace writeset

/// A node of a tree: a header, then room for `mostEntries` 64-bit keys, then the values.
namespace node {
inline constexpr BlockKind kind{121'107, 8};
inline constexpr std::size_t flagsOffset = 4;        // 32
inline constexpr std::size_t entriesOffset = 16;     // 32, in use
inline constexpr std::size_t mostEntriesOffset = 20; // 32, capacity
inline constexpr std::size_t valueSizeOffset = 24;   // 32
inline constexpr std::size_t keysOffset = 32;
inline constexpr std::uint32_t isInternal = 1; // flags; the values are block numbers of child nodes
inline constexpr std::uint32_t isLeaf = 2;
} // namespace node

/// A block of an array: a header, then the values without gaps. All blocks but the last are full.
namespace array {
inline constexpr BlockKind kind{595'846'735, 16};
inline constexpr std::size_t mostEntriesOffset = 4; // 32, capacity
inline constexpr std::size_t entriesOffset = 8;     // 32, in use
inline constexpr std::size_t valueSizeOffset = 12;  // 32
inline constexpr std::size_t valuesOffset = 24;

constexpr std::size_t valuesInBlock(std::size_t valueSize) {
    return (blockSize - valuesOffset) / valueSize;
}
} // namespace array

} // namespace tolvubd::era
