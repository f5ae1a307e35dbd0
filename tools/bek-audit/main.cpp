// The command line of an audit. `bek-restore audit` executes this separate program, as only an audit needs
// the snapshot driver's library.

#include "Audit.h"
#include "Report.h"
#include "app/Version.h"
#include "info/log/LogLevel.h"
#include "tools/common/Command.h"
#include "tools/common/CommandLine.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <random>
#include <stdexcept>
#include <unistd.h>

namespace audit {
namespace {

constexpr const char* programName = "bek-restore audit";

constexpr const char* description =
    R"(Compares a random sample of the blocks of a volume that backups leave out with its image

Takes a snapshot of the volume by the agent's driver and ends it as a backup that has failed: the next
INCREMENTAL still sends all that has changed. While a backup runs it does nothing; a backup that begins
meanwhile waits for it.

Exit status: 0; 1 if it failed; 2 if the command is wrong; 3 if the image lacks what it should have.)";

constexpr std::uint64_t usualSample = 10000;
constexpr std::uint64_t largestSample = 4000000;
constexpr double usualConfidence = 0.95;
constexpr double leastConfidence = 0.5;
constexpr double mostConfidence = 0.999999;

struct Options {
    Request request;
    bool isJson = false;
    bool isVerbose = false;
};

void declare(CLI::App& app, Options& options) {
    Request& request = options.request;
    app.add_option("VOLUME", request.volume, "Where the volume is mounted, or its device")->required();
    app.add_option("IMAGE", request.image, "Its image, as for all commands of bek-restore")->required();
    app.add_option("--offset", request.offset, "The image begins at this byte of its file, device or export")
        ->type_name("BYTES")
        ->check(tools::refuseNegative);
    app.add_option("--sample", request.sample,
                   "So many blocks of 4096 bytes that are unused, and so many that have not changed")
        ->type_name("N")
        ->check(CLI::Range(std::uint64_t{1}, largestSample));
    app.add_option("--confidence", request.confidence, "Of the share that could be wrong at most")
        ->check(CLI::Range(leastConfidence, mostConfidence));
    app.add_option("--seed", request.seed,
                   "Of the random numbers: draws the same sample of a volume on which nothing has changed")
        ->type_name("N");
    app.add_option("--password-file", request.secret.file,
                   "The first line of this file is the password or the secret of the image; without it "
                   "BEK_RESTORE_SECRET of the environment is taken, or the terminal is asked")
        ->type_name("FILE");
    app.add_flag("--json", options.isJson, "Print one JSON object");
    app.add_flag("--verbose", options.isVerbose, "Tell on standard error what is done");
}

/// Without --verbose only errors are kept, and they are printed only if the audit fails.
class Log {
public:
    explicit Log(bool isVerbose)
        : logger([this, isVerbose](const std::string& message, int level, agent::info::LogTime /*time*/) {
              if (isVerbose) {
                  std::cerr << programName << ": " << message;
              } else if (level <= agent::info::level::error) {
                  errors += std::string(programName) + ": " + message;
              }
          }) {}

    void printErrors() const { std::cerr << errors; }

private:
    std::string errors;

public:
    agent::info::Logger logger;
};

int runAudit(const Options& options) {
    if (::geteuid() != 0) {
        throw std::runtime_error("must be run as root");
    }
    Log log(options.isVerbose);
    try {
        const Result result = run(log.logger, options.request);
        if (options.isJson) {
            tools::printJson(std::cout, jsonOf(options.request, result));
        } else {
            std::cout << textOf(options.request, result);
        }
        if (!std::cout.flush()) {
            throw std::runtime_error("standard output can't be written");
        }
        return result.isClean() ? tools::done : tools::differs;
    } catch (...) {
        log.printErrors();
        throw;
    }
}

int runCommand(int argc, char** argv) {
    CLI::App app(description);
    app.name(programName);
    app.set_version_flag("--version", std::string("bek-restore ") + agent::app::version, "Print the version");
    Options options;
    options.request.sample = usualSample;
    options.request.confidence = usualConfidence;
    options.request.seed = std::random_device()();
    declare(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? tools::done : tools::wrongCommand;
    }
    return runAudit(options);
}

} // namespace
} // namespace audit

int main(int argc, char** argv) {
    return tools::statusOf(audit::programName, [&] { return audit::runCommand(argc, argv); });
}
