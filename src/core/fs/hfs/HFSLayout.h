#pragma once

#include <cstddef>
#include <cstdint>

/// The offsets of the fields that are read from HFS+. All numbers are big-endian.
namespace agent::core::fs::hfs_layout {

namespace volume_header {
inline constexpr std::size_t size = 512;
inline constexpr std::uint64_t position = 0;           ///< where the agent looks to recognise a volume
inline constexpr std::uint64_t usualPosition = 1024;   ///< where file systems keep it
inline constexpr std::uint16_t plusValue = 0x482B;     ///< "H+"
inline constexpr std::uint16_t extendedValue = 0x4858; ///< "HX", file names may be case-sensitive

inline constexpr std::size_t signature = 0;        ///< u16
inline constexpr std::size_t version = 2;          ///< u16
inline constexpr std::size_t attributes = 4;       ///< u32
inline constexpr std::size_t blockSize = 40;       ///< u32, in bytes
inline constexpr std::size_t totalBlocks = 44;     ///< u32
inline constexpr std::size_t allocationFork = 112; ///< the fork of the bitmap's file
inline constexpr std::size_t extentsFork = 192;    ///< the fork of the extents B-tree's file

inline constexpr std::uint16_t versionPlus = 4;
inline constexpr std::uint16_t versionExtended = 5;
inline constexpr std::uint32_t attributeUnmounted = 1U << 8U;
inline constexpr std::uint32_t attributeInconsistent = 1U << 11U;
inline constexpr std::uint32_t attributeJournaled = 1U << 13U;
} // namespace volume_header

namespace extent {
inline constexpr std::size_t size = 8;
inline constexpr std::size_t perRecord = 8; ///< in a fork, and in a record of the extents B-tree

inline constexpr std::size_t startBlock = 0; ///< u32
inline constexpr std::size_t blockCount = 4; ///< u32
} // namespace extent

namespace fork {
inline constexpr std::size_t size = 80;

inline constexpr std::size_t logicalSize = 0;  ///< u64, in bytes
inline constexpr std::size_t totalBlocks = 12; ///< u32
inline constexpr std::size_t extents = 16;     ///< eight extents
} // namespace fork

/// A node of a B-tree. A table of u16 offsets, which begins at the node's end and grows towards its start,
/// says where the records are.
namespace node {
inline constexpr std::size_t descriptorSize = 14;
inline constexpr std::size_t kind = 8;         ///< u8
inline constexpr std::size_t recordCount = 10; ///< u16
inline constexpr std::size_t tableEntry = 2;

inline constexpr std::uint8_t kindIndex = 0;
inline constexpr std::uint8_t kindHeader = 1;
inline constexpr std::uint8_t kindMap = 2;
inline constexpr std::uint8_t kindLeaf = 0xFF;
} // namespace node

/// The first record of a tree's first node.
namespace tree_header {
inline constexpr std::size_t position = node::descriptorSize; ///< in the tree's file
inline constexpr std::size_t size = 106;

inline constexpr std::size_t rootNode = 2;  ///< u32
inline constexpr std::size_t nodeSize = 18; ///< u16, in bytes
} // namespace tree_header

/// A record in a node: a key, directly followed by a value. The value is the u32 number of a node in an index
/// node, and eight extents in a leaf.
namespace record {
inline constexpr std::size_t keyLength = 0; ///< u16, doesn't count itself
inline constexpr std::size_t keyLengthSize = 2;
inline constexpr std::size_t forkType = 2;   ///< u8, in the key of an extent record
inline constexpr std::size_t fileId = 4;     ///< u32, in the same key
inline constexpr std::size_t startBlock = 8; ///< u32, in the same key: a block of the file
inline constexpr std::size_t extentKeyLength = 10;
inline constexpr std::size_t childSize = 4;

inline constexpr std::uint8_t dataFork = 0;
inline constexpr std::uint32_t allocationFile = 6; ///< the file ID of the bitmap
} // namespace record

static_assert(volume_header::extentsFork + fork::size <= volume_header::size);
static_assert(volume_header::allocationFork + fork::size == volume_header::extentsFork);
static_assert(fork::extents + extent::perRecord * extent::size == fork::size);
static_assert(tree_header::nodeSize + sizeof(std::uint16_t) <= tree_header::size);
static_assert(record::startBlock + sizeof(std::uint32_t) == record::keyLengthSize + record::extentKeyLength);

} // namespace agent::core::fs::hfs_layout
