#include "AgentPaths.h"
#include "Commands.h"
#include "Database.h"
#include "LogFiles.h"
#include "RecordTable.h"

#include <exception>
#include <ostream>

namespace bekctl {

using tools::Colour;
using tools::localText;
using tools::momentOrNull;
using tools::plain;
using tools::printJson;
using tools::textOrNull;

namespace {

/// The volumes that were ever backed up, even if the log no longer shows it; empty if the database can't be
/// read.
std::vector<std::string> knownVolumes() {
    try {
        return readDatabase(databasePath()).volumes;
    } catch (const std::exception&) {
        return {};
    }
}

std::vector<std::string> withoutRecord(const BackupLog& log) {
    std::vector<std::string> volumes = knownVolumes();
    std::erase_if(volumes, [&](const std::string& uuid) { return log.lastRecords().contains(uuid); });
    return volumes;
}

Json jsonOf(const LogFindings& found, const std::vector<std::string>& unknown) {
    Json records = Json::array();
    for (const auto& [uuid, record] : found.log->lastRecords()) {
        records.push_back(jsonOf(record));
    }
    return {{"backups", records},
            {"volumesWithoutRecord", unknown},
            {"runningSince", momentOrNull(found.log->runningSince())},
            {"cutOff", momentOrNull(found.log->beginOfInterrupted())},
            {"logSince", momentOrNull(found.since)},
            {"logProblem", textOrNull(found.problem)}};
}

/// Also names the volumes whose last backup is older than the log, so that none seems forgotten.
void print(const Output& output, const LogFindings& found, const std::vector<std::string>& unknown) {
    std::ostream& out = output.out;
    if (found.log->lastRecords().empty()) {
        out << "The log tells of no backup. It "
            << (found.since ? "begins on " + localText(*found.since).substr(0, 10) : "is empty")
            << "; seven days are kept.\n";
    } else {
        Table table = recordTable();
        for (const auto& [uuid, record] : found.log->lastRecords()) {
            addRecord(table, record);
        }
        table.print(out, output.screen);
    }
    for (const std::string& uuid : unknown) {
        out << "Volume " << plain(uuid)
            << " was backed up, or begun to be; the log doesn't go back so far.\n";
    }
    if (const auto beginOfInterrupted = found.log->beginOfInterrupted()) {
        out << "The backup that began at " << localText(*beginOfInterrupted)
            << " was cut off by the end of the agent.\n";
    }
    if (!found.problem.empty()) {
        out << output.screen.paint(Colour::red, "Not all of the log could be read: " + found.problem) << '\n';
    }
}

} // namespace

int showBackups(const Output& output) {
    const LogFindings found = readLogs();
    const std::vector<std::string> unknown = withoutRecord(*found.log);
    if (output.isJson) {
        printJson(output.out, jsonOf(found, unknown));
    } else {
        print(output, found, unknown);
    }
    return found.problem.empty() ? exitOk : exitError;
}

} // namespace bekctl
