#pragma once

#include "info/log/Logger.h"

#include <string>

namespace tools {

/// A log for a program that runs at a terminal: errors go to standard error after the program's name, and so
/// does everything else if `isVerbose`.
agent::info::Logger standardErrorLog(const std::string& program, bool isVerbose);

} // namespace tools
