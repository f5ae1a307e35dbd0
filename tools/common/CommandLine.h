#pragma once

#include "Text.h"

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace tools {

/// For CLI::App::failure_message of a program with commands: names a command that doesn't exist, for which
/// CLI11 says only that a subcommand is required.
inline std::string failureText(const CLI::App* app, const CLI::Error& error) {
    const std::vector<std::string> unknown = app->remaining();
    const bool isWithoutCommand = app->get_subcommands().empty() && error.get_name() == "RequiredError";
    return isWithoutCommand && !unknown.empty()
               ? "there is no command " + plain(unknown.front()) + "\nRun with --help for more information.\n"
               : CLI::FailureMessage::simple(app, error);
}

/// A check for options: CLI11 converts -1 to the largest unsigned number.
inline std::string refuseNegative(const std::string& text) {
    return text.starts_with('-') ? "is negative: " + plain(text) : "";
}

} // namespace tools
