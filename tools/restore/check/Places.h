#pragma once

#include "info/log/Logger.h"
#include "tools/restore/RestorePlan.h"

#include <cstdint>
#include <string>
#include <vector>

namespace restore::check {

/// Where the files of the driver and the agent lie on a volume whose top is open; ascending. Nothing where
/// the file system doesn't tell.
std::vector<ByteRange> placesOfDriverFiles(agent::info::Logger& logger, int root);

/// The path of the file that a byte of the volume belongs to, by looking at all of them; empty if none is
/// found, as for what the file system keeps for itself.
std::string ownerOf(agent::info::Logger& logger, int root, std::uint64_t byte);

} // namespace restore::check
