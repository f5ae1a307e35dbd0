#pragma once

#include "Table.h"
#include "Volume.h"

#include <string>
#include <vector>

namespace tolvubd {

/// The current path of the device's volume. Finds a tracked volume by its device-mapper UUID, because it may
/// have been renamed.
std::string devicePathOf(const Device& device);
bool belongsTo(const Device& device, const Volume& volume);

/// The current path of a CoW file on the volume. Throws ENOENT when it isn't there.
std::string findCowFile(const Volume& volume, const std::string& cowFile);
/// The entries for Table::unfinished that make a session remove the CoW file of a destroyed device. Empty
/// when the volume isn't mounted or is broken, or the file is gone already.
std::vector<Unfinished> removalOfCowFile(const Device& device);

} // namespace tolvubd
