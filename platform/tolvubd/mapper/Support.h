#pragma once

#include "Volume.h"

#include <optional>
#include <string>

namespace tolvubd {

/// Why a volume can't be tracked by device-mapper; none when it can. Only what was tried is accepted: a
/// mounted ext or XFS file system on a device that is device-mapper's own, with nothing but linear targets.
std::optional<std::string> reasonAgainstLayers(const Volume& volume);

} // namespace tolvubd
