#include "core/script/Quiesce.h"

#include "common/BaseDirectories.h"
#include "common/Directory.h"
#include "common/File.h"
#include "common/Path.h"
#include "core/script/ForeignWriter.h"
#include "core/script/LineSplitter.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <sys/stat.h>

namespace agent::core::script {

namespace {

using std::chrono::steady_clock;

constexpr std::int64_t microsecondsPerSecond = 1'000'000;
/// How far a run may exceed its time-out through the work between the waits for output. Long enough that only
/// a script that prints without pause can reach it.
constexpr std::chrono::seconds overrun(1);

bool isDirectory(const std::string& path) {
    struct ::stat found{};
    return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

/// Follows links: a link to a directory, or a dangling link, is no script.
bool isScript(const std::string& path) {
    struct ::stat found{};
    return ::stat(path.c_str(), &found) == 0 && !S_ISDIR(found.st_mode);
}

std::string locate(const std::string& script) {
    return script.find('/') == std::string::npos ? (dir::base() / "pps" / script).str() : script;
}

/// The shell and the file system ignore everything after a NUL byte, so a name with a NUL could pass the
/// checks as one file and run as another.
void checkName(const std::string& script) {
    if (const std::size_t nul = script.find('\0'); nul != std::string::npos) {
        throw info::WithReason<std::runtime_error>(info::reason("script-refused"),
                                                   "Quiesce script \"" + script.substr(0, nul) +
                                                       "\" refused: its name goes on behind a NUL byte");
    }
}

/// Scripts run as root, so anybody who can change a script gets root's rights.
void checkWriters(const std::string& path) {
    if (const std::string open = findForeignWriter(path); !open.empty()) {
        throw info::WithReason<std::runtime_error>(info::reason("script-refused"),
                                                   "Quiesce script \"" + path +
                                                       "\" refused: others than root can write " + open);
    }
}

/// Limits `remaining` to the time left until `end`. False if no time is left.
bool limit(std::int64_t& remaining, steady_clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - steady_clock::now());
    remaining = std::min(remaining, left.count());
    return left.count() > 0;
}

} // namespace

Quiesce::Quiesce(info::Logger& logger, ICommandUtility& commandUtility)
    : logger(logger), commandUtility(commandUtility) {}

std::set<std::string> Quiesce::getScripts(const std::string& directory) {
    std::set<std::string> scripts;
    if (!isDirectory(directory)) {
        logger.log(info::level::debug, "Quiesce/PPS directory %s not found", directory.c_str());
        return scripts;
    }
    for (const std::string& name : dir::list(directory)) {
        if (isScript(Path(directory) / name)) {
            scripts.insert(name);
        }
    }
    return scripts;
}

void Quiesce::runScript(const std::string& script, std::uint32_t timeoutSeconds, bool isPre) {
    checkName(script);
    const std::string path = locate(script);
    if (!file::exists(path)) {
        throw info::WithReason<std::runtime_error>(info::reason("script-missing"),
                                                   "Quiesce script \"" + path +
                                                       "\" not found; it may have been moved or deleted");
    }
    checkWriters(path);
    const std::string mode = isPre ? "PRE" : "POST";
    const std::string commandLine = path + " " + mode;
    logger.log(info::level::info, "The following %s quiescing script command will be run: \"%s\"",
               mode.c_str(), commandLine.c_str());
    const std::unique_ptr<ICommandStream> stream = start(commandLine);
    logOutput(path, *stream, timeoutSeconds);
    logger.log(info::level::info, "Done executing quiescing script '%s'", path.c_str());
}

std::unique_ptr<ICommandStream> Quiesce::start(const std::string& commandLine) {
    std::unique_ptr<ICommandStream> stream;
    try {
        // With exec the script replaces the shell, so that a kill at the time-out hits the script itself, and
        // no shell holds the pipe open. Not every shell replaces itself without `exec`.
        stream = commandUtility.createCommandStream("exec " + commandLine, "", true);
    } catch (const std::exception& error) {
        logger.log(info::level::error, "%s", error.what());
    }
    if (!stream) {
        const std::string message =
            "Failed to construct command execution stream, command \"" + commandLine + "\" failed";
        logger.log(info::level::error, info::reason("script-not-started"), "%s", message.c_str());
        throw info::WithReason<std::logic_error>(info::reason("script-not-started"), message);
    }
    return stream;
}

void Quiesce::logOutput(const std::string& path, ICommandStream& stream, std::uint32_t timeoutSeconds) {
    std::int64_t remaining = timeoutSeconds * microsecondsPerSecond;
    const auto end = steady_clock::now() + std::chrono::seconds(timeoutSeconds) + overrun;
    // Logging all lines that have arrived by then could take several times the time-out.
    const auto logLine = [&](const std::string& line) {
        if (steady_clock::now() < end) {
            logger.log(info::level::info, "%s: %s", path.c_str(), line.c_str());
        }
    };
    LineSplitter lines;
    std::string chunk;
    while (limit(remaining, end) && stream.waitForOutput(remaining) && stream.readAvailable(chunk)) {
        lines.add(chunk, logLine);
        chunk.clear();
    }
}

} // namespace agent::core::script
