#pragma once

#include <cstddef>
#include <cstdint>

/// The offsets of the fields that are read from XFS. All numbers are big-endian.
namespace agent::core::fs::xfs_layout {

namespace super_block {
inline constexpr std::size_t size = 512;                ///< at the volume's first byte
inline constexpr std::uint32_t magicValue = 0x58465342; ///< "XFSB"

inline constexpr std::size_t magic = 0;              ///< u32
inline constexpr std::size_t blockSize = 4;          ///< u32, in bytes
inline constexpr std::size_t totalBlocks = 8;        ///< u64
inline constexpr std::size_t agBlocks = 84;          ///< u32, blocks in an allocation group
inline constexpr std::size_t agCount = 88;           ///< u32
inline constexpr std::size_t version = 100;          ///< u16
inline constexpr std::size_t sectorSize = 102;       ///< u16, in bytes; the device's may be smaller
inline constexpr std::size_t features2 = 200;        ///< u32, valid with versionMoreFeatures only
inline constexpr std::size_t roCompatFeatures = 212; ///< u32, valid with versionCrc only
inline constexpr std::size_t incompatFeatures = 216; ///< u32, valid with versionCrc only

inline constexpr std::uint16_t versionMask = 0xf;
inline constexpr std::uint16_t versionPlain = 4;
inline constexpr std::uint16_t versionCrc = 5;
inline constexpr std::uint16_t versionMoreFeatures = 0x8000;
inline constexpr std::uint32_t featureNeedsRepair = 0x10; ///< incompat
} // namespace super_block

/// Free-space information of an allocation group, in its second sector.
namespace agf {
inline constexpr std::uint64_t sector = 1;
inline constexpr std::size_t size = 512;
inline constexpr std::uint32_t magicValue = 0x58414746; ///< "XAGF"

inline constexpr std::size_t magic = 0;         ///< u32
inline constexpr std::size_t offsetBtRoot = 16; ///< u32, block number in the group
inline constexpr std::size_t flFirst = 40;      ///< u32, index in the free list
inline constexpr std::size_t flLast = 44;       ///< u32, index in the free list
inline constexpr std::size_t flCount = 48;      ///< u32
} // namespace agf

/// Free list of an allocation group, in its fourth sector: u32 block numbers in the group.
namespace agfl {
inline constexpr std::uint64_t sector = 3;
inline constexpr std::size_t size = 512;
inline constexpr std::size_t crcHeader = 36; ///< before the list, in the CRC format
inline constexpr std::size_t crcSize = size - crcHeader;
} // namespace agfl

/// A node of the B-tree of free extents. Records and keys are pairs of u32: the first block in the group, and
/// the count. The children of an internal node, u32 block numbers in the group, follow the space for the
/// largest number of keys.
namespace node {
inline constexpr std::uint32_t magicValue = 0x41425442;    ///< "ABTB"
inline constexpr std::uint32_t magicValueCrc = 0x41423342; ///< "AB3B"

inline constexpr std::size_t magic = 0;     ///< u32
inline constexpr std::size_t level = 4;     ///< u16, 0 for a leaf
inline constexpr std::size_t numRecs = 6;   ///< u16
inline constexpr std::size_t leftSib = 8;   ///< u32
inline constexpr std::size_t rightSib = 12; ///< u32
inline constexpr std::size_t headerSize = 16;
inline constexpr std::size_t headerSizeCrc = 56; ///< this many bytes are read in both formats

inline constexpr std::size_t recordSize = 8;
inline constexpr std::size_t childSize = 4;
inline constexpr std::uint32_t none = 0xFFFFFFFF; ///< no such block
} // namespace node

static_assert(super_block::incompatFeatures + sizeof(std::uint32_t) <= super_block::size);
static_assert(agf::flCount + sizeof(std::uint32_t) <= agf::size);
static_assert(node::rightSib + sizeof(std::uint32_t) <= node::headerSize);

} // namespace agent::core::fs::xfs_layout
