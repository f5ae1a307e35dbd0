#include "core/fs/fat/FATBootSector.h"

#include "core/fs/fat/FATLayout.h"

#include <bit>

namespace agent::core::fs {

namespace {

namespace layout = fat_layout::boot_sector;
namespace entry = fat_layout::entry;

constexpr std::uint16_t minSectorSize = 512;
constexpr std::uint16_t maxSectorSize = 4096;

} // namespace

FATBootSector FATBootSector::decode(Bytes bytes) {
    const auto word = [bytes](std::size_t offset) { return littleEndian<std::uint32_t>(bytes, offset); };
    const auto half = [bytes](std::size_t offset) { return littleEndian<std::uint16_t>(bytes, offset); };
    FATBootSector boot;
    boot.bytesPerSector = half(layout::bytesPerSector);
    boot.sectorsPerCluster = bytes[layout::sectorsPerCluster];
    boot.reservedSectors = half(layout::reservedSectors);
    boot.fatCount = bytes[layout::fatCount];
    boot.rootEntries = half(layout::rootEntries);
    boot.totalSectors16 = half(layout::totalSectors16);
    boot.sectorsPerFat16 = half(layout::sectorsPerFat16);
    boot.totalSectors32 = word(layout::totalSectors32);
    boot.sectorsPerFat = word(layout::sectorsPerFat);
    boot.flags = half(layout::flags);
    boot.version = half(layout::version);
    return boot;
}

/// A volume that is refused here is copied completely. A map that is read wrongly would leave out used
/// blocks.
const char* FATBootSector::whyUnusable() const {
    const char* const reason = unsupportedFormat();
    return reason != nullptr ? reason : impossibleGeometry();
}

/// Why drivers don't read the volume as FAT32 with the first FAT in use; null if they do.
const char* FATBootSector::unsupportedFormat() const {
    if (sectorsPerFat16 != 0) {
        return "The FAT has entries of 12 or 16 bits, though it is called FAT32";
    }
    if (rootEntries != 0) {
        return "A FAT32 root directory in front of the clusters is not supported";
    }
    if (version != 0) {
        return "This version of FAT32 is not supported";
    }
    if ((flags & layout::flagOneFat) != 0 && (flags & layout::flagsWhichFat) != 0) {
        return "The first FAT is not the one in use, so it may be out of date";
    }
    return nullptr;
}

const char* FATBootSector::impossibleGeometry() const {
    if (!hasPossibleClusters()) {
        return "The FAT cluster size is impossible";
    }
    if (reservedSectors == 0 || fatCount == 0) {
        return "The FAT volume has no room for a boot sector and a FAT";
    }
    if (volumeBytes() < dataOffset() + clusterBytes()) {
        return "The FATs don't fit on the volume";
    }
    if (clusterCount() > entry::bad - entry::reserved) {
        return "The FAT clusters are too many for their numbers";
    }
    return (clusterCount() + entry::reserved) * entry::size > fatBytes()
               ? "The FAT is too short for all clusters"
               : nullptr;
}

bool FATBootSector::hasPossibleClusters() const {
    return bytesPerSector >= minSectorSize && bytesPerSector <= maxSectorSize &&
           std::has_single_bit(bytesPerSector) && std::has_single_bit(sectorsPerCluster);
}

std::uint64_t FATBootSector::volumeBytes() const {
    const std::uint64_t sectors = totalSectors16 != 0 ? totalSectors16 : totalSectors32;
    return sectors * bytesPerSector;
}

std::uint64_t FATBootSector::blockCount() const {
    return (volumeBytes() + clusterBytes() - 1) / clusterBytes();
}

std::uint64_t FATBootSector::firstDataBlock() const {
    return (dataOffset() + clusterBytes() - 1) / clusterBytes();
}

} // namespace agent::core::fs
