#pragma once

#include <string>

namespace zephane {

/// Searches the directories of PATH for a program and returns its path. Throws ConfigError if there is none.
std::string findProgram(const std::string& name);

} // namespace zephane
