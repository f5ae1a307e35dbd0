#pragma once

#include "core/fs/IVolumeReader.h"
#include "core/fs/ntfs/NTFSMasterFileTable.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// The objects and sizes needed to read files of a volume. The referenced objects must outlive every copy.
struct NTFSVolume {
    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize; ///< of the device
    std::uint64_t clusterBytes;
    NTFSMasterFileTable& files;
};

} // namespace agent::core::fs
