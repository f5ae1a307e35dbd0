#pragma once

#include <string>

namespace zephane {

/// The path of a program, from the directories of PATH. ConfigError if there is none.
std::string findProgram(const std::string& name);

} // namespace zephane
