#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// The offsets of the fields that are read from FAT32. All numbers are little-endian.
namespace agent::core::fs::fat_layout {

namespace boot_sector {
inline constexpr std::size_t size = 512; ///< at the volume's first byte, whatever the sector size

inline constexpr std::size_t bytesPerSector = 11;    ///< u16
inline constexpr std::size_t sectorsPerCluster = 13; ///< u8
inline constexpr std::size_t reservedSectors = 14;   ///< u16, sectors before the first FAT
inline constexpr std::size_t fatCount = 16;          ///< u8
inline constexpr std::size_t rootEntries = 17;       ///< u16, 0: the root directory is in clusters
inline constexpr std::size_t totalSectors16 = 19;    ///< u16, 0: totalSectors32 is valid
inline constexpr std::size_t sectorsPerFat16 = 22;   ///< u16, 0: sectorsPerFat is valid
inline constexpr std::size_t totalSectors32 = 32;    ///< u32
inline constexpr std::size_t sectorsPerFat = 36;     ///< u32
inline constexpr std::size_t flags = 40;             ///< u16
inline constexpr std::size_t version = 42;           ///< u16, 0 is the only version
inline constexpr std::size_t narrowType = 54;        ///< text, where FAT12 and FAT16 have it
inline constexpr std::size_t type = 82;              ///< text, where FAT32 has it

inline constexpr std::string_view fat12 = "FAT12";
inline constexpr std::string_view fat16 = "FAT16";
inline constexpr std::string_view fat32 = "FAT32";

inline constexpr std::uint16_t flagOneFat = 0x80;    ///< only one FAT is written, the others are out of date
inline constexpr std::uint16_t flagsWhichFat = 0x0f; ///< the number of that FAT, valid with flagOneFat only
} // namespace boot_sector

namespace entry {
inline constexpr std::size_t size = 4;
inline constexpr std::uint32_t mask = 0x0FFFFFFF; ///< the other four bits are undefined
inline constexpr std::uint32_t free = 0;
inline constexpr std::uint32_t bad = 0x0FFFFFF7;
inline constexpr std::uint32_t reserved = 2; ///< how many entries at the start belong to no cluster
inline constexpr std::uint32_t medium =
    0x0FFFFF00; ///< the first entry without its low byte, which is the media type
} // namespace entry

static_assert(boot_sector::type + boot_sector::fat32.size() <= boot_sector::size);
static_assert(boot_sector::narrowType + boot_sector::fat16.size() <= boot_sector::type);

} // namespace agent::core::fs::fat_layout
