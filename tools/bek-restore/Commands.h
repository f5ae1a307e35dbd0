#pragma once

#include <CLI/CLI.hpp>
#include <functional>

/// One source a command: what can be said to it, and what it does.
namespace restore {

enum ExitStatus {
    done = 0,
    failed = 1, ///< a text on standard error says why
    wrongCommand = 2,
    differs = 3, ///< it did what it was asked to, and found an image that isn't as it should be
};

/// What a command does once the whole command line is known. Returns an exit status, or throws
/// std::exception.
using Run = std::function<int()>;

/// Each declares a command, which leaves in `chosen` what it does if it is the one that was called.
void declareInfo(CLI::App& app, Run& chosen);
void declareCheck(CLI::App& app, Run& chosen);
void declareAudit(CLI::App& app, Run& chosen);
void declareGet(CLI::App& app, Run& chosen);
void declareLs(CLI::App& app, Run& chosen);
void declareMount(CLI::App& app, Run& chosen);
void declareUmount(CLI::App& app, Run& chosen);
void declareWrite(CLI::App& app, Run& chosen);

} // namespace restore
