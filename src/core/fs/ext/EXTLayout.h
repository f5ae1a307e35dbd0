#pragma once

#include <cstddef>
#include <cstdint>

/// The offsets of the fields that are read from ext2, ext3 and ext4. All numbers are little-endian.
namespace agent::core::fs::ext_layout {

namespace super_block {
inline constexpr std::uint64_t position = 1024; ///< on the volume, whatever the block size
inline constexpr std::size_t size = 1024;
inline constexpr std::uint16_t magicValue = 0xEF53;

inline constexpr std::size_t blockCount = 4;            ///< u32, low half
inline constexpr std::size_t firstDataBlock = 20;       ///< u32, the block that holds this superblock
inline constexpr std::size_t logBlockSize = 24;         ///< u32
inline constexpr std::size_t blocksPerGroup = 32;       ///< u32
inline constexpr std::size_t inodesPerGroup = 40;       ///< u32
inline constexpr std::size_t magic = 56;                ///< u16
inline constexpr std::size_t revision = 76;             ///< u32
inline constexpr std::size_t inodeSize = 88;            ///< u16, valid from revision 1 on
inline constexpr std::size_t compatFeatures = 92;       ///< u32
inline constexpr std::size_t incompatFeatures = 96;     ///< u32
inline constexpr std::size_t roCompatFeatures = 100;    ///< u32
inline constexpr std::size_t reservedDescriptors = 206; ///< u16, blocks reserved after the descriptors
inline constexpr std::size_t descriptorSize = 254;      ///< u16, valid with feature64Bit only
inline constexpr std::size_t firstMetaBlock = 260;      ///< u32, valid with featureMetaGroups only
inline constexpr std::size_t blockCountHigh = 336;      ///< u32, valid with feature64Bit only
inline constexpr std::size_t backupGroups = 588;        ///< two u32, valid with featureSparseSuper2 only

inline constexpr std::uint32_t featureSparseSuper2 = 0x200; ///< compat: backups in the two backupGroups only
inline constexpr std::uint32_t featureRecover = 0x4;        ///< incompat: the journal must be replayed
inline constexpr std::uint32_t featureMetaGroups = 0x10;    ///< incompat: descriptors spread over the groups
inline constexpr std::uint32_t feature64Bit = 0x80;         ///< incompat: descriptors of descriptorSize bytes
inline constexpr std::uint32_t featureSparseSuper = 0x1;    ///< ro_compat: backups in some groups only
inline constexpr std::uint32_t featureUninitGroups = 0x10;  ///< ro_compat: group flags are valid
inline constexpr std::uint32_t featureBigAlloc = 0x200;     ///< ro_compat: bitmaps of clusters, not blocks
inline constexpr std::uint32_t featureChecksums = 0x400;    ///< ro_compat: group flags are valid, too
} // namespace super_block

namespace descriptor {
inline constexpr std::size_t size = 32; ///< without feature64Bit; otherwise the minimum

inline constexpr std::size_t blockBitmap = 0;      ///< u32, low half
inline constexpr std::size_t inodeBitmap = 4;      ///< u32, low half
inline constexpr std::size_t inodeTable = 8;       ///< u32, its first block, low half
inline constexpr std::size_t flags = 18;           ///< u16
inline constexpr std::size_t blockBitmapHigh = 32; ///< u32, in descriptors of at least sizeWithHighHalves
inline constexpr std::size_t sizeWithHighHalves = 64;

inline constexpr std::uint16_t flagBlockUninit = 0x2; ///< the block bitmap was never written
} // namespace descriptor

static_assert(super_block::backupGroups + 2 * sizeof(std::uint32_t) <= super_block::size);
static_assert(descriptor::flags + sizeof(std::uint16_t) <= descriptor::size);
static_assert(descriptor::blockBitmapHigh + sizeof(std::uint32_t) <= descriptor::sizeWithHighHalves);

} // namespace agent::core::fs::ext_layout
