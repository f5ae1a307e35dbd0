#pragma once

#include "dm/Mapper.h"

#include <string>

namespace tolvubd {

/// Whether `lower` maps the same places as LVM's metadata lists at this moment for the volume with this
/// device-mapper UUID. True for volumes that aren't LVM's. False when in doubt.
bool matchesLvmMetadata(const std::string& volume, const dm::Device& lower);

} // namespace tolvubd
