#pragma once

#include "core/fs/IVolumeDevice.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace usedmap {

/// How many bytes of alignment direct reads of this open device or file need: its sector size, or that of the
/// device below its file system.
std::uint32_t sectorSizeOf(const agent::core::IVolumeDevice& device);

/// The size of a block of the file system, which the daemon learns from the system rather than the volume.
/// 0 if the file system is of no known kind.
std::uint32_t blockSizeOf(agent::info::Logger& logger, agent::core::IVolumeDevice& device,
                          std::uint32_t sectorSize);

} // namespace usedmap
