#pragma once

#include "dm/Mapper.h"

#include <string>

namespace tolvubd {

/// Whether a volume of this device-mapper UUID lies where `lower` does, as LVM says at this moment. True for
/// volumes that aren't LVM's. False in any doubt.
bool isWhereLvmSays(const std::string& volume, const dm::Device& lower);

} // namespace tolvubd
