#pragma once

#include "Table.h"
#include "Volume.h"

#include <string>
#include <vector>

namespace tolvubd {

/// Where the device's volume is now: one that device-mapper tracks may have got another name.
std::string placeOf(const Device& device);
bool isOn(const Device& device, const Volume& volume);

/// Where the device's CoW file is now. ENOENT when it can't be found.
std::string findCowFile(const Volume& volume, const std::string& cowFile);
/// What remains to be removed of a device that is destroyed: nothing, when the volume isn't mounted, is
/// broken, or somebody has been faster.
std::vector<Unfinished> removalOfCowFile(const Device& device);

} // namespace tolvubd
