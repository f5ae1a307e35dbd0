#pragma once

#include "zephane/zephaned/Config.h"

#include <string>
#include <vector>

namespace zephane {

/// The arguments for nbdkit: the plugin and its parameters. Whatever export a client names, it gets one image
/// only: nbdkit's filter "exportname" allows no other name.
std::vector<std::string> engineArguments(const BackEndSource& source, bool isWritable);

/// Why the image can't be served, with the remedy, in words; empty if no problem is found. Checks only files:
/// a problem with an NBD server shows only when the server is used.
std::string problemOf(const BackEndSource& source);

/// A description that may be shown to anybody. It leaves out the plugin's parameters, which may hold secrets.
std::string describe(const BackEndSource& source);

} // namespace zephane
