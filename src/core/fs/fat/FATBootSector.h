#pragma once

#include "core/fs/ByteOrder.h"

#include <cstdint>

namespace agent::core::fs {

/// The fields that are read from the boot sector of FAT32, and the values derived from them. Blocks and
/// clusters have the same size, but the first block begins at the volume's first byte, and the first cluster
/// after the FATs.
/// Owns:    copies of the fields.
/// Threads: a plain value; const calls are safe from any thread.
/// Fails:   never. The derived values may only be used if `whyUnusable` returns null.
struct FATBootSector {
    /// Decodes the bytes of a boot sector, whose type the caller has checked.
    static FATBootSector decode(Bytes bytes);

    /// Why the boot sector isn't plausible, or why the first FAT doesn't show which clusters are used; null
    /// if all is well.
    [[nodiscard]] const char* whyUnusable() const;

    /// If false, no method that depends on the cluster size may be called.
    [[nodiscard]] bool hasPossibleClusters() const;
    [[nodiscard]] std::uint32_t clusterBytes() const {
        return std::uint32_t{sectorsPerCluster} * bytesPerSector;
    }
    /// The position of the first FAT, in bytes.
    [[nodiscard]] std::uint64_t fatOffset() const { return std::uint64_t{reservedSectors} * bytesPerSector; }
    /// The position of the first cluster, in bytes.
    [[nodiscard]] std::uint64_t dataOffset() const { return fatBytes() * fatCount + fatOffset(); }
    /// The number of blocks, including an incomplete last block.
    [[nodiscard]] std::uint64_t blockCount() const;
    /// The first block that contains only clusters.
    [[nodiscard]] std::uint64_t firstDataBlock() const;
    /// Whether each data block is one cluster. Otherwise it holds the end of one cluster and the start of the
    /// next.
    [[nodiscard]] bool isAligned() const { return dataOffset() % clusterBytes() == 0; }

    std::uint16_t bytesPerSector = 0;
    std::uint8_t sectorsPerCluster = 0;
    std::uint16_t reservedSectors = 0;
    std::uint8_t fatCount = 0;
    std::uint16_t totalSectors16 = 0;
    std::uint32_t totalSectors32 = 0;
    std::uint32_t sectorsPerFat = 0;
    // Used only to detect what can't be read safely:
    std::uint16_t rootEntries = 0;
    std::uint16_t sectorsPerFat16 = 0;
    std::uint16_t flags = 0;
    std::uint16_t version = 0;

private:
    [[nodiscard]] const char* unsupportedFormat() const;
    [[nodiscard]] const char* impossibleGeometry() const;
    [[nodiscard]] std::uint64_t volumeBytes() const;
    [[nodiscard]] std::uint64_t fatBytes() const { return std::uint64_t{sectorsPerFat} * bytesPerSector; }
    [[nodiscard]] std::uint64_t clusterCount() const {
        return (volumeBytes() - dataOffset()) / clusterBytes();
    }
};

} // namespace agent::core::fs
