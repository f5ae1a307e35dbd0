#pragma once

#include <functional>

namespace tools {

/// The exit status of a program for administrators.
enum ExitStatus {
    done = 0,
    failed = 1,       ///< standard error has the reason
    wrongCommand = 2, ///< standard error has the reason
    differs = 3,      ///< the command succeeded, but found something that isn't as it should be
};

/// The action of a command. Returns an exit status; throws std::invalid_argument for a wrong command line,
/// and any other std::exception for a failure.
using Run = std::function<int()>;

/// Calls `run`, and prints its exception after the program's name. Never throws.
int statusOf(const char* program, const Run& run) noexcept;

} // namespace tools
