#pragma once

#include "tools/common/Command.h"

#include <CLI/CLI.hpp>

/// One source file per command, with its options and its action.
namespace restore {

using tools::differs;
using tools::done;
using tools::failed;
using tools::Run;
using tools::wrongCommand;

/// Each function declares one command. If that command is called, its action is stored in `chosen`.
void declareInfo(CLI::App& app, Run& chosen);
void declareCheck(CLI::App& app, Run& chosen);
void declareAudit(CLI::App& app, Run& chosen);
void declareGet(CLI::App& app, Run& chosen);
void declareLs(CLI::App& app, Run& chosen);
void declareMount(CLI::App& app, Run& chosen);
void declareUmount(CLI::App& app, Run& chosen);
void declareWrite(CLI::App& app, Run& chosen);

} // namespace restore
