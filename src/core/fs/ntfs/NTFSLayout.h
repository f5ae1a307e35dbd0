#pragma once

#include <cstddef>
#include <cstdint>

/// Where the numbers stand that are read of NTFS. All are little-endian.
namespace agent::core::fs::ntfs_layout {

namespace boot_sector {
inline constexpr std::size_t size = 512; ///< that are read, whatever the sectors have
inline constexpr const char* oemIdValue = "NTFS    ";

inline constexpr std::size_t oemId = 3; ///< 8 characters
inline constexpr std::size_t oemIdSize = 8;
inline constexpr std::size_t bytesPerSector = 11;       ///< u16
inline constexpr std::size_t sectorsPerCluster = 13;    ///< u8; above 128 it is no count, but a negated log2
inline constexpr std::size_t totalSectors = 40;         ///< u64, without the backup of this sector
inline constexpr std::size_t mftLcn = 48;               ///< u64, first cluster of the master file table
inline constexpr std::size_t clustersPerMftRecord = 64; ///< i8; a negative one is the negated log2 of bytes
} // namespace boot_sector

/// The head of a record of the master file table.
namespace file_record {
inline constexpr std::size_t size = 48;
inline constexpr std::uint32_t magicValue = 0x454C4946; ///< "FILE"
inline constexpr std::uint32_t magicTorn = 0x44414142;  ///< "BAAD": was not written as a whole

inline constexpr std::size_t magic = 0;                ///< u32
inline constexpr std::size_t updateSequenceOffset = 4; ///< u16
inline constexpr std::size_t updateSequenceCount = 6;  ///< u16, the sequence number among them
inline constexpr std::size_t firstAttribute = 20;      ///< u16
inline constexpr std::size_t baseRecord = 32;          ///< u64, a reference; 0 in a base record itself
inline constexpr std::size_t number = 44;              ///< u32, is there from NTFS 3.1 on

inline constexpr std::size_t headWithNumber = 48; ///< where the update sequence is if the number is there
inline constexpr std::size_t sector = 512;        ///< that an update sequence protects, whatever the disk has
} // namespace file_record

/// A reference to a record has its number in the low 48 bits.
inline constexpr std::uint64_t referenceNumber = 0xFFFF'FFFF'FFFF;

namespace attribute {
inline constexpr std::size_t smallest = 24; ///< the header of a resident one
inline constexpr std::uint32_t typeAttributeList = 0x20;
inline constexpr std::uint32_t typeData = 0x80;
inline constexpr std::uint32_t typeIndexRoot = 0x90;
inline constexpr std::uint32_t typeIndexAllocation = 0xA0;
inline constexpr std::uint32_t typeEnd = 0xFFFFFFFF; ///< of this, only the type is there

inline constexpr std::size_t type = 0;        ///< u32
inline constexpr std::size_t length = 4;      ///< u32, of all of it
inline constexpr std::size_t nonResident = 8; ///< u8
inline constexpr std::size_t nameLength = 9;  ///< u8
inline constexpr std::size_t flags = 12;      ///< u16: compressed, encrypted, sparse; 0 for plain data

inline constexpr std::size_t valueLength = 16; ///< u32, of a resident one
inline constexpr std::size_t valueOffset = 20; ///< u16, of a resident one

inline constexpr std::size_t nonResidentHeader = 64;
inline constexpr std::size_t lowestVcn = 16;       ///< u64, where in the file these runs begin
inline constexpr std::size_t runList = 32;         ///< u16, offset
inline constexpr std::size_t allocatedSize = 40;   ///< u64, of all of the file, its holes among it
inline constexpr std::size_t dataSize = 48;        ///< u64
inline constexpr std::size_t initializedSize = 56; ///< u64, what is behind it reads as zeros
} // namespace attribute

/// An entry of an attribute list, as far as it is read.
namespace list_entry {
inline constexpr std::size_t size = 24;

inline constexpr std::size_t type = 0;       ///< u32
inline constexpr std::size_t length = 4;     ///< u16
inline constexpr std::size_t nameLength = 6; ///< u8
inline constexpr std::size_t vcn = 8;        ///< u64, where in the file the runs begin that the record has
inline constexpr std::size_t record = 16;    ///< u64, a reference
} // namespace list_entry

/// The value of an index root: this, and a node behind it.
namespace index_root {
inline constexpr std::size_t size = 16;
inline constexpr std::uint32_t typeFileName = 0x30; ///< of the index of a directory

inline constexpr std::size_t type = 0;      ///< u32, of the attribute whose values are the keys
inline constexpr std::size_t blockSize = 8; ///< u32, bytes of a block of the index allocation
} // namespace index_root

/// The head of a block of an index allocation, with an update sequence as that of a file record. A node is
/// behind it.
namespace index_block {
inline constexpr std::size_t size = 24;
inline constexpr std::uint32_t magicValue = 0x58444E49; ///< "INDX"

inline constexpr std::size_t vcn = 16; ///< u64, its own

inline constexpr std::uint64_t smallUnit = 512; ///< of a VCN, where a block is smaller than a cluster
} // namespace index_block

/// The head of a node. Its offsets count from the head on.
namespace index_node {
inline constexpr std::size_t size = 16;

inline constexpr std::size_t firstEntry = 0; ///< u32, offset
inline constexpr std::size_t usedBytes = 4;  ///< u32, the head among them
inline constexpr std::size_t flags = 12;     ///< u8
inline constexpr std::uint8_t hasChildren = 1;
} // namespace index_node

/// An entry of a node. Where it has a child, the VCN of that is its last 8 bytes.
namespace index_entry {
inline constexpr std::size_t size = 16;

inline constexpr std::size_t record = 0;    ///< u64, a reference
inline constexpr std::size_t length = 8;    ///< u16, of all of it
inline constexpr std::size_t flags = 12;    ///< u16
inline constexpr std::size_t keyBegin = 16; ///< a name, as below; the last entry has none
inline constexpr std::uint16_t hasChild = 1;
inline constexpr std::uint16_t isLast = 2;
} // namespace index_entry

/// The name of a file, as far as it is read.
namespace file_name {
inline constexpr std::size_t length = 64;     ///< u8, in units
inline constexpr std::size_t characters = 66; ///< UTF-16
} // namespace file_name

inline constexpr std::uint64_t rootRecord = 5;   ///< the root directory's
inline constexpr std::uint64_t bitmapRecord = 6; ///< `$Bitmap`'s

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
