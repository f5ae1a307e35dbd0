#pragma once

#include "core/fs/FileBlocks.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <string>

namespace usedmap {

/// Returns the blocks of a volume that hold the content of a file. Throws std::runtime_error if the kind of
/// file system is unknown or doesn't support the search for files, or if the file can't be found.
agent::core::fs::FileBlocks findFileRanges(agent::info::Logger& logger, agent::core::IVolumeReader& device,
                                           std::uint32_t sectorSize, const std::string& path);

} // namespace usedmap
