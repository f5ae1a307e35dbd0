#pragma once

#include "core/block/BlockRange.h"
#include "core/fs/IVolumeDevice.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace usedmap {

/// Which blocks of a volume hold the files of the snapshot driver, which a backup leaves out; ascending. Only
/// a mounted file system tells where its files lie: nothing for one that isn't, or that doesn't tell.
std::optional<std::vector<agent::BlockRange>> findDriverFiles(agent::info::Logger& logger,
                                                              const agent::core::IVolumeDevice& device,
                                                              std::uint32_t blockSize);

} // namespace usedmap
