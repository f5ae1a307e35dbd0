#include "LogFiles.h"

#include "common/Directory.h"
#include "common/File.h"
#include "info/log/FilePrinter.h"
#include "ordak/LogFileReader.h"
#include "tools/common/Text.h"

#include <chrono>
#include <exception>
#include <map>

namespace bekctl {

using tools::plain;

namespace {

using agent::info::FilePrinter;

constexpr std::size_t mostFiles = 32; // four times what the agent keeps

/// Log files by their day.
using LogNames = std::map<agent::info::LogTime, std::string>;

LogNames findFiles(const agent::Path& directory) {
    LogNames found;
    for (const std::string& name : agent::dir::list(directory)) {
        try {
            found.emplace(FilePrinter::parseLogFileDate(name), name);
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): no log of the agent's
        }
        if (found.size() > mostFiles) {
            found.erase(found.begin());
        }
    }
    return found;
}

void readFile(BackupLog& log, const std::string& path) {
    agent::ordak::LogFileReader reader(path);
    for (std::string line; reader.next(line);) {
        log.add(line);
    }
}

} // namespace

LogFindings readLogs() {
    LogFindings found;
    found.log = std::make_unique<BackupLog>();
    const agent::Path directory = FilePrinter::logDirectory();
    try {
        if (!agent::file::exists(directory)) {
            return found;
        }
        for (const auto& [day, name] : findFiles(directory)) {
            found.since = found.since.value_or(std::chrono::system_clock::to_time_t(day));
            readFile(*found.log, directory / name);
        }
    } catch (const std::exception& error) {
        found.problem = plain(error.what());
    }
    return found;
}

} // namespace bekctl
