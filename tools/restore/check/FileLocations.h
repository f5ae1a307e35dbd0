#pragma once

#include "info/log/Logger.h"
#include "tools/restore/RestorePlan.h"

#include <cstdint>
#include <string>
#include <vector>

namespace restore::check {

/// The locations of the driver's and the agent's files on a volume, ascending. `root` is the open root
/// directory. Returns nothing if the file system doesn't report extents.
std::vector<ByteRange> locationsOfDriverFiles(agent::info::Logger& logger, int root);

/// The path of the file that a byte of the volume belongs to, found by a search of all files; empty if there
/// is none, for example for the file system's own metadata.
std::string ownerOf(agent::info::Logger& logger, int root, std::uint64_t byte);

} // namespace restore::check
