#pragma once

#include "core/fs/ByteOrder.h"

#include <cstdint>

namespace agent::core::fs {

/// What is read of the boot sector of FAT32, and what follows from it. Two grids of the same width lie on the
/// volume: blocks begin with its first byte, clusters behind its FATs.
/// Owns:    copies of the numbers.
/// Threads: a value.
/// Fails:   nothing fails. What follows from the numbers can be asked for where `objection` has none.
struct FATBootSector {
    /// From the bytes of a boot sector, whose type has been looked at.
    static FATBootSector decode(Bytes bytes);

    /// Why the boot sector can't be believed, or the first FAT doesn't tell what is used; null if it does.
    [[nodiscard]] const char* objection() const;

    /// Without it, nothing that follows from the size of a cluster can be asked for.
    [[nodiscard]] bool hasPossibleClusters() const;
    [[nodiscard]] std::uint32_t clusterBytes() const {
        return std::uint32_t{sectorsPerCluster} * bytesPerSector;
    }
    /// Of the first FAT, in bytes.
    [[nodiscard]] std::uint64_t fatOffset() const { return std::uint64_t{reservedSectors} * bytesPerSector; }
    /// Of the first cluster, in bytes.
    [[nodiscard]] std::uint64_t dataOffset() const { return fatBytes() * fatCount + fatOffset(); }
    /// How many blocks there are, the last of which may be a part of one.
    [[nodiscard]] std::uint64_t blockCount() const;
    /// The first block that has nothing in it but clusters.
    [[nodiscard]] std::uint64_t firstDataBlock() const;
    /// Whether a block of the data is one cluster; otherwise it is the end of one and the begin of the next.
    [[nodiscard]] bool isAligned() const { return dataOffset() % clusterBytes() == 0; }

    std::uint16_t bytesPerSector = 0;
    std::uint8_t sectorsPerCluster = 0;
    std::uint16_t reservedSectors = 0;
    std::uint8_t fatCount = 0;
    std::uint16_t totalSectors16 = 0;
    std::uint32_t totalSectors32 = 0;
    std::uint32_t sectorsPerFat = 0;
    // Only to tell what can't be read safely:
    std::uint16_t rootEntries = 0;
    std::uint16_t sectorsPerFat16 = 0;
    std::uint16_t flags = 0;
    std::uint16_t version = 0;

private:
    [[nodiscard]] const char* strangeFormat() const;
    [[nodiscard]] const char* impossibleGeometry() const;
    [[nodiscard]] std::uint64_t volumeBytes() const;
    [[nodiscard]] std::uint64_t fatBytes() const { return std::uint64_t{sectorsPerFat} * bytesPerSector; }
    [[nodiscard]] std::uint64_t clusterCount() const {
        return (volumeBytes() - dataOffset()) / clusterBytes();
    }
};

} // namespace agent::core::fs
