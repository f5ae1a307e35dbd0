#pragma once

#include "core/fs/IVolumeDevice.h"

#include <cstdint>

namespace usedmap {

/// The alignment in bytes that direct reads of this open device need: its sector size; 512 for a file.
std::uint32_t sectorSizeOf(const agent::core::IVolumeDevice& device);

} // namespace usedmap
