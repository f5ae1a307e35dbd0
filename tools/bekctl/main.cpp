// The command line: selects the command and the form of its output, and turns exceptions into an exit status.

#include "Commands.h"
#include "Target.h"
#include "app/Version.h"
#include "tools/common/CommandLine.h"
#include "tools/common/Text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <unistd.h>

namespace bekctl {

using tools::plain;

namespace {

constexpr const char* description = R"(bekctl - look at the backup agent of this machine

Shows whether the agent runs, what it protects and what has become of its backups, and finds
what would make the next one fail. It only looks: it writes nothing, holds no lock that the
agent could meet, and asks it for nothing but its certificate. It must be run as root.

Exit status: 0; 1 if something is not as it should be; 2 if the command is wrong or bekctl can't look.)";

struct Options {
    bool isJson = false;
    bool isPlain = false;
    std::string target;
    LogOptions log;
};

struct Command {
    const char* name = nullptr;
    const char* description = nullptr;
    int (*run)(const Output&, const Options&) = nullptr;
    bool needsRoot = true;
};

/// Adapts a command that has no options of its own.
template <int (*show)(const Output&)>
int withoutOptions(const Output& output, const Options& /*options*/) {
    return show(output);
}

int check(const Output& output, const Options& options) {
    return showCheck(output, options.target);
}

int followLog(const Output& output, const Options& options) {
    return showLog(output, options.log);
}

constexpr const char* checkName = "check";
constexpr const char* logName = "log";

constexpr std::array commands{
    Command{"status", "Whether the agent runs and answers, its pairing, its driver and the last backups",
            &withoutOptions<showStatus>},
    Command{"volumes", "The volumes as the agent sees them, and the room for their snapshots",
            &withoutOptions<showVolumes>},
    Command{"backups", "The last backup of each volume, as far as the log goes back",
            &withoutOptions<showBackups>},
    Command{"pairing", "The appliance that the agent is paired with", &withoutOptions<showPairing>},
    Command{"certificates", "The agent's certificates, when they end, and whether they belong together",
            &withoutOptions<showCertificates>},
    Command{checkName, "What would make the next backup fail, or copy more than it is asked to", &check},
    Command{logName, "The agent's log, as it is and as it grows", &followLog},
    Command{"reasons", "The codes that the log gives for fall-backs and failures",
            &withoutOptions<showReasons>, false},
};

void declareForm(CLI::App& app, Options& options) {
    app.add_flag("--json", options.isJson, "Print one JSON object");
    app.add_flag("--no-color", options.isPlain, "No colours on a terminal, as with NO_COLOR set");
}

void declareTarget(CLI::App& app, Options& options) {
    app.add_option("--target", options.target,
                   "See whether this target can be reached, and not the one that the log has named last; "
                   "the port is 3260 unless given")
        ->type_name("HOST[:PORT]")
        ->check([](const std::string& text) {
            return parseTarget(text) ? std::string() : "no host, or no port: " + plain(text);
        });
}

void declareLog(CLI::App& app, LogOptions& options) {
    app.add_option("-n,--lines", options.lines,
                   "Begin with so many lines of those that are there; 20 by default")
        ->type_name("NUMBER")
        ->check(tools::refuseNegative);
    app.add_flag("-f,--follow", options.follow, "Go on as the log grows");
    app.add_option("--level", options.level, "Show what is at least as severe as this; debug by default")
        ->type_name("LEVEL")
        ->check(CLI::IsMember(logLevels()));
    app.add_flag("--journal", options.toJournal, "Send the lines to the journal, as those of bekd's unit");
}

void declare(CLI::App& app, Options& options) {
    app.name("bekctl");
    app.failure_message(&tools::failureText);
    app.set_version_flag("--version", std::string("bekctl ") + agent::app::version, "Print the version");
    app.require_subcommand(1);
    for (const Command& command : commands) {
        declareForm(*app.add_subcommand(command.name, command.description), options);
    }
    declareTarget(*app.get_subcommand(checkName), options);
    declareLog(*app.get_subcommand(logName), options.log);
}

const Command& commandOf(const CLI::App& app) {
    return *std::ranges::find_if(commands,
                                 [&](const Command& command) { return app.got_subcommand(command.name); });
}

int runCommand(const Command& command, const Options& options) {
    const int status =
        command.run({std::cout, Screen::ofStandardOutput(!options.isPlain), options.isJson}, options);
    std::cout.flush();
    return std::cout ? status : exitError;
}

int run(int argc, char** argv) {
    Options options;
    CLI::App app(description);
    declare(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitOk : exitError;
    }
    const Command& command = commandOf(app);
    if (command.needsRoot && ::geteuid() != 0) {
        std::cerr << "bekctl: must be run as root\n";
        return exitError;
    }
    try {
        return runCommand(command, options);
    } catch (const std::exception& error) {
        std::cerr << "bekctl: " << plain(error.what()) << '\n';
        return exitError;
    }
}

} // namespace
} // namespace bekctl

int main(int argc, char** argv) {
    try {
        return bekctl::run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bekctl: %s\n", error.what());
        return bekctl::exitError;
    }
}
