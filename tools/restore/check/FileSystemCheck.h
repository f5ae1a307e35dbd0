#pragma once

#include "Findings.h"

#include <string>

namespace restore::check {

/// Runs the checker for this kind of file system on a device, after replaying the journal there; so the
/// device must be an overlay. `directory` is a mount point for the replay, in this process's mount namespace
/// only. Throws std::runtime_error if a program can't be run.
void checkFileSystem(const std::string& kind, const std::string& device, const std::string& directory,
                     Findings& findings);

} // namespace restore::check
