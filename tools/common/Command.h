#pragma once

#include <functional>

namespace tools {

/// How a program for administrators ends.
enum ExitStatus {
    done = 0,
    failed = 1,       ///< a text on standard error says why
    wrongCommand = 2, ///< so does one here
    differs = 3,      ///< it did what it was asked to, and found something that isn't as it should be
};

/// What a command does. Returns an exit status; std::invalid_argument is for a wrong command line, and any
/// other std::exception for a failure.
using Run = std::function<int()>;

/// Runs it, and prints what it throws behind the program's name. Nothing is thrown.
int statusOf(const char* program, const Run& run) noexcept;

} // namespace tools
