#pragma once

#include "core/fs/IVolumeDevice.h"

#include <cstdint>

namespace usedmap {

/// How many bytes of alignment direct reads of this open device or file need: its sector size, or that of the
/// device below its file system.
std::uint32_t sectorSizeOf(const agent::core::IVolumeDevice& device);

} // namespace usedmap
