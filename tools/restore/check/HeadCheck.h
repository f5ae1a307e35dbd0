#pragma once

#include "Findings.h"
#include "tools/restore/IImage.h"

#include <string>

namespace restore::check {

/// Whether the head of an image is as the last good backup of the volume has left it, as the agent has noted
/// in its database, which isn't locked. Throws std::runtime_error if the database can't be read.
void checkHead(IImage& image, const std::string& database, const std::string& uuid, Findings& findings);

} // namespace restore::check
