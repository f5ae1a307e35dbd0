#pragma once

#include <string>

namespace tolvubd {

/// Whether the kernel has a device-mapper target. Loads the target's module if necessary.
bool hasTarget(const std::string& type);

} // namespace tolvubd
