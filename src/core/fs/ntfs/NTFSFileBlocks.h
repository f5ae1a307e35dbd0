#pragma once

#include "core/fs/FileBlocks.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <string>

namespace agent::core::fs {

/// The clusters of a file on NTFS. `path` is absolute, in UTF-8, with "\" between its parts. Throws
/// std::runtime_error if the file can't be found, has no clusters, or if not all of its clusters can be
/// determined.
FileBlocks findNTFSFile(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize,
                        const std::string& path);

} // namespace agent::core::fs
