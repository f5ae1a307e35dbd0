#pragma once

#include "Findings.h"

#include <string>

namespace restore::check {

/// Lets the checker of a kind of file system look through a device, after its journal was replayed there: so
/// the device is an overlay's. `directory` is where it may be mounted for that, seen by this process alone.
/// Throws std::runtime_error if a program can't be run.
void checkFileSystem(const std::string& kind, const std::string& device, const std::string& directory,
                     Findings& findings);

} // namespace restore::check
