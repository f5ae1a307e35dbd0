#pragma once

#include "dm/Mapper.h"

#include <vector>

namespace tolvubd {

/// The device-mapper devices that lie on another, by a table that is live or one that is only loaded.
std::vector<dm::Device> holdersOf(const dm::Device& device);

} // namespace tolvubd
