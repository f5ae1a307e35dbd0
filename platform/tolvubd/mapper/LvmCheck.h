#pragma once

#include "dm/Mapper.h"

#include <string>

namespace tolvubd {

/// Whether the volume with this device-mapper UUID lies where `lower` does, according to LVM at this moment.
/// True for volumes that aren't LVM's. False in any doubt.
bool isWhereLvmSays(const std::string& volume, const dm::Device& lower);

} // namespace tolvubd
