#pragma once

#include "info/log/Logger.h"
#include "tools/restore/IImage.h"

#include <string>

namespace restore::check {

/// Whether an image ends before the volume in it does, according to the map of used blocks. Always false for
/// NTFS: its map extends beyond the volume, and its checker looks for the last sector itself. Throws
/// std::runtime_error if the map can't be read.
bool isTruncated(agent::info::Logger& logger, IImage& image, const std::string& kind);

} // namespace restore::check
