#pragma once

#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// Whether a volume has an HFS+ header at byte 1024, where file systems keep it and where no volume is known
/// by it here. Moves the reader's position; a place that can't be read has none. `sectorSize` is that of the
/// device, 0 if it isn't known.
bool hasHeaderAtItsUsualPlace(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);

} // namespace agent::core::fs
