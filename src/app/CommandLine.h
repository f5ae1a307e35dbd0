#pragma once

#include <optional>
#include <ostream>

namespace agent::app {

/// The options from the command line.
struct CommandLine {
    bool foreground = false; ///< Stay in the foreground: no daemon, no lock on the PID file.
};

/// Parses the whole command line. Returns nothing if any option asks for the usage text or is unknown.
std::optional<CommandLine> parseCommandLine(int argc, char** argv);

void printUsage(std::ostream& out);

} // namespace agent::app
