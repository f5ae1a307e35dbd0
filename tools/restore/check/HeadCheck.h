#pragma once

#include "Findings.h"
#include "tools/restore/IImage.h"

#include <string>

namespace restore::check {

/// Checks whether the head of an image is still what the last good backup of the volume has left, by the
/// checksum in the agent's database, which isn't locked. Throws std::runtime_error if the database can't be
/// read.
void checkHead(IImage& image, const std::string& database, const std::string& uuid, Findings& findings);

} // namespace restore::check
