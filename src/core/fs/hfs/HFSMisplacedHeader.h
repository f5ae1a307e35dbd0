#pragma once

#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// Whether a volume has an HFS+ header at byte 1024. File systems keep it there, but the agent recognises a
/// volume only by a header at byte 0. Moves the reader's position. False if byte 1024 can't be read.
/// `sectorSize` is the device's, 0 if it isn't known.
bool hasHeaderAtItsUsualPlace(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);

} // namespace agent::core::fs
