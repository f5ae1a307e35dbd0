#pragma once

#include <optional>
#include <ostream>

namespace agent::app {

/// What the command line asks for.
struct CommandLine {
    bool foreground = false; ///< Stay in the foreground: no daemon, no lock on the PID file.
};

/// Reads the whole command line. Nothing if it asks for the usage text or holds what isn't known, whatever
/// else it says.
std::optional<CommandLine> parseCommandLine(int argc, char** argv);

void printUsage(std::ostream& out);

} // namespace agent::app
