#pragma once

#include "zephane/zephaned/Config.h"

#include <string>
#include <vector>

namespace zephane {

/// What the nbdkit of a back end is told: the plugin and its parameters. Clients get one image, whatever
/// export they name: nbdkit's filter "exportname" lets no other name through.
std::vector<std::string> engineArguments(const BackEndSource& source, bool isWritable);

/// Why no image can be there, in words and with the way out; empty if nothing is found. Looks at files only:
/// whether a server answers shows when it is asked.
std::string problemOf(const BackEndSource& source);

/// What may be shown to anybody: the parameters of a plugin may hold secrets.
std::string describe(const BackEndSource& source);

} // namespace zephane
