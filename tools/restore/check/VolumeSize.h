#pragma once

#include "info/log/Logger.h"
#include "tools/restore/IImage.h"

#include <string>

namespace restore::check {

/// Whether an image ends before the volume does whose file system of this kind is in it, by the map of used
/// blocks. That of NTFS goes on behind the volume; its checker looks for the last sector by itself. Throws
/// std::runtime_error if the map can't be read.
bool isCutShort(agent::info::Logger& logger, IImage& image, const std::string& kind);

} // namespace restore::check
