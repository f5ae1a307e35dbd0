#pragma once

#include "dm/Mapper.h"

#include <vector>

namespace tolvubd {

/// The device-mapper devices whose live or loaded table uses this device.
std::vector<dm::Device> holdersOf(const dm::Device& device);

} // namespace tolvubd
