#pragma once

#include "core/fs/FileBlocks.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <string>

namespace usedmap {

/// Which blocks of a volume hold the content of a file. Throws std::runtime_error if the file system is of no
/// known kind, or of one on which files can't be looked for, or if the file can't be found.
agent::core::fs::FileBlocks findFileRanges(agent::info::Logger& logger, agent::core::IVolumeReader& device,
                                           std::uint32_t sectorSize, const std::string& path);

} // namespace usedmap
