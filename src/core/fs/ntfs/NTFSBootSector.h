#pragma once

#include "core/fs/ByteOrder.h"

#include <cstdint>
#include <string>

namespace agent::core::fs {

/// What is read of the boot sector of NTFS, and what follows from it.
/// Owns:    copies of the numbers.
/// Threads: a value.
/// Fails:   nothing fails. What follows from the numbers can be relied on where `objection` has none.
struct NTFSBootSector {
    static NTFSBootSector decode(Bytes bytes);

    [[nodiscard]] bool isNTFS() const;
    /// Why no map may be made of the volume on a device with sectors of so many bytes; empty if one may.
    /// 0 where nobody knows the device's sectors.
    [[nodiscard]] std::string objection(std::uint32_t deviceSector) const;

    /// Without it, nothing that follows from the size of a cluster can be asked for.
    [[nodiscard]] bool hasPossibleClusters() const;
    [[nodiscard]] std::uint64_t clusterBytes() const;
    [[nodiscard]] std::uint64_t clusterCount() const;
    /// Of a record of the master file table, in bytes; 0 if it isn't to be believed.
    [[nodiscard]] std::uint64_t mftRecordSize() const;

    std::string oemId;
    std::uint16_t bytesPerSector = 0;
    std::uint8_t sectorsPerCluster = 0;
    std::uint64_t totalSectors = 0;
    std::uint64_t mftLcn = 0;
    std::int8_t clustersPerMftRecord = 0;

private:
    [[nodiscard]] const char* impossibleGeometry() const;
};

} // namespace agent::core::fs
