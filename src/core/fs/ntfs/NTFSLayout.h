#pragma once

#include <cstddef>
#include <cstdint>

/// The offsets of the fields that are read from NTFS. All numbers are little-endian.
namespace agent::core::fs::ntfs_layout {

namespace boot_sector {
inline constexpr std::size_t size = 512; ///< the bytes that are read, whatever the sector size
inline constexpr const char* oemIdValue = "NTFS    ";

inline constexpr std::size_t oemId = 3; ///< 8 characters
inline constexpr std::size_t oemIdSize = 8;
inline constexpr std::size_t bytesPerSector = 11;       ///< u16
inline constexpr std::size_t sectorsPerCluster = 13;    ///< u8; above 128 it is a negated log2, not a count
inline constexpr std::size_t totalSectors = 40;         ///< u64, without the backup of this sector
inline constexpr std::size_t mftLcn = 48;               ///< u64, first cluster of the master file table
inline constexpr std::size_t clustersPerMftRecord = 64; ///< i8; if negative, the negated log2 of bytes
} // namespace boot_sector

/// The header of a record of the master file table.
namespace file_record {
inline constexpr std::size_t size = 48;
inline constexpr std::uint32_t magicValue = 0x454C4946; ///< "FILE"
inline constexpr std::uint32_t magicTorn = 0x44414142;  ///< "BAAD": the record was written incompletely

inline constexpr std::size_t magic = 0;                ///< u32
inline constexpr std::size_t updateSequenceOffset = 4; ///< u16
inline constexpr std::size_t updateSequenceCount = 6;  ///< u16, counts the sequence number, too
inline constexpr std::size_t firstAttribute = 20;      ///< u16
inline constexpr std::size_t baseRecord = 32;          ///< u64, a reference; 0 in a base record itself
inline constexpr std::size_t number = 44;              ///< u32, exists from NTFS 3.1 on

inline constexpr std::size_t headWithNumber = 48; ///< the update sequence's offset if the number exists
inline constexpr std::size_t sector = 512;        ///< the unit of the update sequence, on every disk
} // namespace file_record

/// The low 48 bits of a reference to a record are the record's number.
inline constexpr std::uint64_t referenceNumber = 0xFFFF'FFFF'FFFF;

namespace attribute {
inline constexpr std::size_t smallest = 24; ///< the header of a resident attribute
inline constexpr std::uint32_t typeAttributeList = 0x20;
inline constexpr std::uint32_t typeData = 0x80;
inline constexpr std::uint32_t typeIndexRoot = 0x90;
inline constexpr std::uint32_t typeIndexAllocation = 0xA0;
inline constexpr std::uint32_t typeEnd = 0xFFFFFFFF; ///< an end mark, which has only the type

inline constexpr std::size_t type = 0;        ///< u32
inline constexpr std::size_t length = 4;      ///< u32, of the whole attribute
inline constexpr std::size_t nonResident = 8; ///< u8
inline constexpr std::size_t nameLength = 9;  ///< u8
inline constexpr std::size_t flags = 12;      ///< u16: compressed, encrypted, sparse; 0 for plain data

inline constexpr std::size_t valueLength = 16; ///< u32, resident attributes only
inline constexpr std::size_t valueOffset = 20; ///< u16, resident attributes only

inline constexpr std::size_t nonResidentHeader = 64;
inline constexpr std::size_t lowestVcn = 16;       ///< u64, the file's cluster at which these runs begin
inline constexpr std::size_t runList = 32;         ///< u16, offset
inline constexpr std::size_t allocatedSize = 40;   ///< u64, of the whole file, including holes
inline constexpr std::size_t dataSize = 48;        ///< u64
inline constexpr std::size_t initializedSize = 56; ///< u64, the rest of the file reads as zeros
} // namespace attribute

/// The part of an attribute list's entry that is read.
namespace list_entry {
inline constexpr std::size_t size = 24;

inline constexpr std::size_t type = 0;       ///< u32
inline constexpr std::size_t length = 4;     ///< u16
inline constexpr std::size_t nameLength = 6; ///< u8
inline constexpr std::size_t vcn = 8;        ///< u64, the file's cluster at which the record's runs begin
inline constexpr std::size_t record = 16;    ///< u64, a reference
} // namespace list_entry

/// The value of an index root: this header, followed by a node.
namespace index_root {
inline constexpr std::size_t size = 16;
inline constexpr std::uint32_t typeFileName = 0x30; ///< the type of a directory's index

inline constexpr std::size_t type = 0;      ///< u32, the type of the attribute whose values are the keys
inline constexpr std::size_t blockSize = 8; ///< u32, the bytes of a block of the index allocation
} // namespace index_root

/// The header of a block of an index allocation, with an update sequence like a file record's. A node follows
/// it.
namespace index_block {
inline constexpr std::size_t size = 24;
inline constexpr std::uint32_t magicValue = 0x58444E49; ///< "INDX"

inline constexpr std::size_t vcn = 16; ///< u64, the block's own

inline constexpr std::uint64_t smallUnit = 512; ///< the unit of VCNs if a block is smaller than a cluster
} // namespace index_block

/// The header of a node. Offsets count from the start of the header.
namespace index_node {
inline constexpr std::size_t size = 16;

inline constexpr std::size_t firstEntry = 0; ///< u32, offset
inline constexpr std::size_t usedBytes = 4;  ///< u32, including the header
inline constexpr std::size_t flags = 12;     ///< u8
inline constexpr std::uint8_t hasChildren = 1;
} // namespace index_node

/// An entry of a node. If it has a child, its last 8 bytes are the child's VCN.
namespace index_entry {
inline constexpr std::size_t size = 16;

inline constexpr std::size_t record = 0;    ///< u64, a reference
inline constexpr std::size_t length = 8;    ///< u16, of the whole entry
inline constexpr std::size_t flags = 12;    ///< u16
inline constexpr std::size_t keyBegin = 16; ///< the offset of a file_name; the last entry has none
inline constexpr std::uint16_t hasChild = 1;
inline constexpr std::uint16_t isLast = 2;
} // namespace index_entry

/// The part of a file's name attribute that is read.
namespace file_name {
inline constexpr std::size_t length = 64;     ///< u8, in UTF-16 units
inline constexpr std::size_t characters = 66; ///< UTF-16
} // namespace file_name

inline constexpr std::uint64_t rootRecord = 5;   ///< the record of the root directory
inline constexpr std::uint64_t bitmapRecord = 6; ///< the record of `$Bitmap`

static_assert(boot_sector::oemId + boot_sector::oemIdSize == boot_sector::bytesPerSector);
static_assert(boot_sector::clustersPerMftRecord < boot_sector::size);
static_assert(file_record::number + sizeof(std::uint32_t) == file_record::size);
static_assert(attribute::valueOffset + sizeof(std::uint16_t) <= attribute::smallest);
static_assert(attribute::initializedSize + sizeof(std::uint64_t) == attribute::nonResidentHeader);
static_assert(list_entry::record + sizeof(std::uint64_t) == list_entry::size);
static_assert(attribute::allocatedSize + sizeof(std::uint64_t) == attribute::dataSize);
static_assert(index_block::vcn + sizeof(std::uint64_t) == index_block::size);
static_assert(index_node::flags < index_node::size);
static_assert(index_entry::flags + sizeof(std::uint16_t) <= index_entry::keyBegin);

} // namespace agent::core::fs::ntfs_layout
