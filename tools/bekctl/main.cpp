// The command line: which command, in which form, and what becomes of what it throws.

#include "Commands.h"
#include "Text.h"
#include "app/Version.h"

#include <CLI/CLI.hpp>
#include <array>
#include <exception>
#include <iostream>
#include <string>
#include <unistd.h>

namespace bekctl {
namespace {

constexpr const char* description = R"(bekctl - look at the backup agent of this machine

Shows whether the agent runs, what it protects and what has become of its backups, and finds
what would make the next one fail. It only looks: it writes nothing, holds no lock that the
agent could meet, and asks it for nothing but its certificate. It must be run as root.

Exit status: 0; 1 if something is not as it should be; 2 if the command is wrong or bekctl can't look.)";

struct Options {
    bool isJson = false;
    bool isPlain = false;
};

struct Command {
    const char* name;
    const char* description;
    int (*run)(const Output&);
};

constexpr std::array commands{
    Command{"status", "Whether the agent runs and answers, its pairing, its driver and the last backups",
            &showStatus},
    Command{"volumes", "The volumes as the agent sees them, and the room for their snapshots", &showVolumes},
    Command{"backups", "The last backup of each volume, as far as the log goes back", &showBackups},
    Command{"pairing", "The appliance that the agent is paired with", &showPairing},
    Command{"certificates", "The agent's certificates, when they end, and whether they belong together",
            &showCertificates},
};

void declareForm(CLI::App& app, Options& options) {
    app.add_flag("--json", options.isJson, "Print one JSON object");
    app.add_flag("--no-color", options.isPlain, "No colours on a terminal, as with NO_COLOR set");
}

void declare(CLI::App& app, Options& options) {
    app.name("bekctl");
    app.set_version_flag("--version", std::string("bekctl ") + agent::app::version, "Print the version");
    app.require_subcommand(1);
    for (const Command& command : commands) {
        declareForm(*app.add_subcommand(command.name, command.description), options);
    }
}

int runCommand(const CLI::App& app, const Options& options) {
    const Output output{std::cout, Screen::ofStandardOutput(!options.isPlain), options.isJson};
    for (const Command& command : commands) {
        if (app.got_subcommand(command.name)) {
            return command.run(output);
        }
    }
    return unusable;
}

int run(int argc, char** argv) {
    Options options;
    CLI::App app(description);
    declare(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? well : unusable;
    }
    if (::geteuid() != 0) {
        std::cerr << "bekctl: must be run as root\n";
        return unusable;
    }
    try {
        const int status = runCommand(app, options);
        std::cout.flush();
        return std::cout ? status : unusable;
    } catch (const std::exception& error) {
        std::cerr << "bekctl: " << plain(error.what()) << '\n';
        return unusable;
    }
}

} // namespace
} // namespace bekctl

int main(int argc, char** argv) {
    return bekctl::run(argc, argv);
}
