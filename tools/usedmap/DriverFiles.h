#pragma once

#include "core/block/BlockRange.h"
#include "core/fs/IVolumeDevice.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace usedmap {

/// The blocks of a volume that hold the snapshot driver's files, which a backup leaves out; ascending.
/// Returns nothing if the volume isn't mounted, or if its file system doesn't report extents.
std::optional<std::vector<agent::BlockRange>> findDriverFiles(agent::info::Logger& logger,
                                                              const agent::core::IVolumeDevice& device,
                                                              std::uint32_t blockSize);

} // namespace usedmap
