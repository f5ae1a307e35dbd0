#pragma once

#include "Volume.h"

#include <optional>
#include <string>

namespace tolvubd {

/// Why a volume can't be tracked by device-mapper; none if it can. Accepts only tested configurations: ext4
/// or XFS, mounted from a device-mapper device with nothing but linear targets.
std::optional<std::string> unsupportedReason(const Volume& volume);

} // namespace tolvubd
