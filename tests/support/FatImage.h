#pragma once

#include "support/MemoryVolume.h"

#include <cstdint>

namespace agent::test {

/// The on-disk structures of FAT32 that say which clusters are used, in a volume in memory: the boot sector
/// and the FATs, of which the agent reads the first. Initially no cluster is in use.
class FatImage {
public:
    struct Geometry {
        std::uint16_t bytesPerSector = 512;
        std::uint8_t sectorsPerCluster = 2;
        std::uint16_t reservedSectors = 32;
        std::uint8_t fatCount = 2;
        std::uint32_t sectorsPerFat = 20;
        std::uint32_t totalSectors = 4000;
    };

    static constexpr std::uint32_t bad = 0x0FFFFFF7;
    static constexpr std::uint32_t endOfChain = 0x0FFFFFF8;

    explicit FatImage(Geometry geometry)
        : geometry(geometry),
          clusterBytes(std::uint64_t{geometry.bytesPerSector} * geometry.sectorsPerCluster),
          fatOffset(std::uint64_t{geometry.reservedSectors} * geometry.bytesPerSector),
          fatBytes(std::uint64_t{geometry.sectorsPerFat} * geometry.bytesPerSector),
          dataOffset(fatOffset + fatBytes * geometry.fatCount),
          bytes(std::uint64_t{geometry.totalSectors} * geometry.bytesPerSector),
          clusters((bytes - dataOffset) / clusterBytes),
          blocks((bytes + clusterBytes - 1) / clusterBytes),
          volume(bytes) {
        volume.writeLittle(11, geometry.bytesPerSector, 2);
        volume.writeLittle(13, geometry.sectorsPerCluster, 1);
        volume.writeLittle(14, geometry.reservedSectors, 2);
        volume.writeLittle(16, geometry.fatCount, 1);
        volume.writeLittle(32, geometry.totalSectors, 4);
        volume.writeLittle(36, geometry.sectorsPerFat, 4);
        writeType(82, "FAT32");
        for (unsigned fat = 0; fat < geometry.fatCount; ++fat) {
            volume.writeLittle(fatOffset + fatBytes * fat, 0x0FFFFFF8, 4);
            volume.writeLittle(fatOffset + fatBytes * fat + 4, 0x0FFFFFFF, 4);
        }
    }

    /// Writes five characters into the boot sector.
    void writeType(std::uint64_t offset, const char (&text)[6]) {
        for (unsigned i = 0; i < 5; ++i) {
            volume.at(offset + i) = static_cast<std::uint8_t>(text[i]);
        }
    }

    /// Sets an entry of the first FAT. The first cluster has entry 2.
    void setEntry(std::uint64_t entry, std::uint32_t value) {
        volume.writeLittle(fatOffset + 4 * entry, value, 4);
    }

    Geometry geometry;
    std::uint64_t clusterBytes;
    std::uint64_t fatOffset;
    std::uint64_t fatBytes;
    std::uint64_t dataOffset;
    std::uint64_t bytes;
    std::uint64_t clusters;
    std::uint64_t blocks;
    MemoryVolume volume;
};

} // namespace agent::test
