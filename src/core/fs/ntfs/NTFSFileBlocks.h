#pragma once

#include "core/fs/FileBlocks.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <string>

namespace agent::core::fs {

/// The clusters of a file of NTFS, by its path from the root on, in UTF-8 and with "\" between its parts.
/// Throws std::runtime_error if it can't be found, or lies in no clusters, or not all of them can be told.
FileBlocks findNTFSFile(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize,
                        const std::string& path);

} // namespace agent::core::fs
