#pragma once

#include "tools/common/Command.h"

#include <CLI/CLI.hpp>

/// One source a command: what can be said to it, and what it does.
namespace restore {

using tools::differs;
using tools::done;
using tools::failed;
using tools::Run;
using tools::wrongCommand;

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
