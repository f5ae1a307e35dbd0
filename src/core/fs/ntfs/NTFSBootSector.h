#pragma once

#include "core/fs/ByteOrder.h"

#include <cstdint>
#include <string>

namespace agent::core::fs {

/// The fields that are read from the boot sector of NTFS, and the values derived from them.
/// Owns:    copies of the fields.
/// Threads: a plain value; const calls are safe from any thread.
/// Fails:   never. The derived values are only reliable if `whyUnusable` returns an empty string.
struct NTFSBootSector {
    static NTFSBootSector decode(Bytes bytes);

    [[nodiscard]] bool isNTFS() const;
    /// Why the volume can't be read on a device with sectors of `deviceSector` bytes; empty if it can. Pass 0
    /// if the device's sector size isn't known.
    [[nodiscard]] std::string whyUnusable(std::uint32_t deviceSector) const;

    /// If false, no method that depends on the cluster size may be called.
    [[nodiscard]] bool hasPossibleClusters() const;
    [[nodiscard]] std::uint64_t clusterBytes() const;
    [[nodiscard]] std::uint64_t clusterCount() const;
    /// The size of a record of the master file table, in bytes; 0 if it isn't plausible.
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
