#pragma once

#include <string>

namespace tolvubd {

/// Whether the kernel has a device-mapper target, or a module for it, which it then loads.
bool hasTarget(const std::string& type);

} // namespace tolvubd
