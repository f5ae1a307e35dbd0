#include "AgentFacts.h"
#include "AgentPaths.h"
#include "Commands.h"
#include "Database.h"
#include "DriverFacts.h"
#include "LogFiles.h"
#include "RecordTable.h"
#include "SilentLogger.h"
#include "SystemServices.h"
#include "app/Version.h"

#include <exception>
#include <optional>
#include <ostream>

namespace bekctl {

using tools::Cell;
using tools::Colour;
using tools::localText;
using tools::momentOrNull;
using tools::plain;
using tools::printJson;
using tools::textOrNull;
using tools::utcText;

namespace {

struct Status {
    AgentFacts agent;
    std::optional<Unit> unit;
    std::optional<Database> database;
    std::string databaseProblem;
    DriverKind driver = DriverKind::none;
    std::string driverVersion;
    LogFindings logs;

    [[nodiscard]] bool isOk() const { return agent.isRunning() && agent.port == Port::answers; }
    [[nodiscard]] std::optional<std::time_t> backupSince() const {
        return agent.isRunning() ? logs.log->runningSince() : std::nullopt;
    }
};

std::optional<Unit> findUnit() {
    try {
        return SystemServices().unit("bekd.service");
    } catch (const std::exception&) {
        return std::nullopt; // without a bus, systemd can't be asked
    }
}

Status findStatus() {
    SilentLogger silent;
    const DriverFacts driver(silent.logger);
    Status status{findAgent(), findUnit(), {}, "", driver.kind(), driver.version(), readLogs()};
    try {
        status.database = readDatabase(databasePath());
    } catch (const std::exception& error) {
        status.databaseProblem = plain(error.what());
    }
    return status;
}

std::string nameOf(Port port) {
    switch (port) {
    case Port::closed:
        return "closed";
    case Port::otherProgram:
        return "foreign";
    case Port::silent:
        return "silent";
    case Port::wrongCertificate:
        return "stranger";
    case Port::answers:
        return "answers";
    }
    return "";
}

Json agentJson(const AgentFacts& agent) {
    const auto& process = agent.process;
    return {{"running", agent.isRunning()},
            {"pid", process ? Json(process->pid) : Json()},
            {"since", process ? Json(utcText(process->begin)) : Json()},
            {"foreground", agent.isForeground},
            {"programReplaced", process && process->isReplaced},
            {"version", agent::app::version},
            {"port",
             {{"number", agentPort},
              {"state", nameOf(agent.port)},
              {"ownerPid", agent.listener ? Json(agent.listener->pid) : Json()},
              {"problem", textOrNull(agent.problem)}}}};
}

Json unitJson(const std::optional<Unit>& unit) {
    return unit ? Json{{"load", unit->load},
                       {"active", unit->active},
                       {"detail", unit->detail},
                       {"enabled", unit->enabled}}
                : Json();
}

Json pairingJson(const Status& status) {
    const bool isPaired = status.database && status.database->pairing;
    return {{"paired", status.database ? Json(isPaired) : Json()},
            {"deviceId", isPaired ? Json(status.database->pairing->device) : Json()},
            {"address", isPaired ? textOrNull(status.database->pairing->address) : Json()},
            {"problem", textOrNull(status.databaseProblem)}};
}

Json jsonOf(const Status& status) {
    Json records = Json::array();
    for (const auto& [uuid, record] : status.logs.log->lastRecords()) {
        records.push_back(jsonOf(record));
    }
    return {{"agent", agentJson(status.agent)},
            {"unit", unitJson(status.unit)},
            {"pairing", pairingJson(status)},
            {"driver", {{"kind", nameOf(status.driver)}, {"version", textOrNull(status.driverVersion)}}},
            {"backupRunningSince", momentOrNull(status.backupSince())},
            {"backupCopying", status.backupSince() ? textOrNull(status.logs.log->copying()) : Json()},
            {"backups", records}};
}

Cell agentCell(const AgentFacts& agent) {
    if (!agent.process) {
        return {"does not run", Colour::red};
    }
    std::string text =
        "runs, process " + std::to_string(agent.process->pid) + " since " + localText(agent.process->begin);
    text += agent.isForeground ? ", in the foreground" : "";
    text += agent.process->isReplaced ? "; its program was replaced, start it anew" : "";
    return {text, agent.process->isReplaced ? Colour::yellow : Colour::green};
}

Cell portCell(const AgentFacts& agent) {
    return agent.port == Port::answers ? Cell("answers with the certificate on disk", Colour::green)
                                       : Cell(agent.problem, Colour::red);
}

Cell pairingCell(const Status& status) {
    if (!status.database) {
        return {status.databaseProblem, Colour::red};
    }
    if (!status.database->pairing) {
        return {"not paired", Colour::yellow};
    }
    const Pairing& pairing = *status.database->pairing;
    return "with device " + std::to_string(pairing.device) +
           (pairing.address.empty() ? "" : " at " + plain(pairing.address));
}

Cell unitCell(const std::optional<Unit>& unit) {
    if (!unit) {
        return "no systemd here";
    }
    const bool isMissing = unit->load == "not-found";
    return isMissing ? "bekd.service is not installed"
                     : "bekd.service " + unit->active + " (" + unit->detail + "), " + unit->enabled;
}

Cell driverCell(const Status& status) {
    if (status.driver == DriverKind::none) {
        return {"shows nothing of itself", Colour::red};
    }
    return nameOf(status.driver) + ", " +
           (status.driverVersion.empty() ? "no version" : "version " + status.driverVersion);
}

Cell backupCell(const Status& status) {
    const std::optional<std::time_t> since = status.backupSince();
    if (!since) {
        return "none";
    }
    const std::string& copying = status.logs.log->copying();
    return "since " + localText(*since) + (copying.empty() ? "" : ", copies volume " + copying);
}

void print(const Output& output, const Status& status) {
    Table facts({{"", false, false}, {"", false, false}});
    facts.add({"Agent", agentCell(status.agent)});
    facts.add({"Version", agent::app::version});
    facts.add({"Port " + std::to_string(agentPort), portCell(status.agent)});
    facts.add({"Unit", unitCell(status.unit)});
    facts.add({"Paired", pairingCell(status)});
    facts.add({"Driver", driverCell(status)});
    facts.add({"Backup now", backupCell(status)});
    facts.print(output.out, output.screen);
    if (!status.logs.log->lastRecords().empty()) {
        output.out << '\n';
        Table table = recordTable();
        for (const auto& [uuid, record] : status.logs.log->lastRecords()) {
            addRecord(table, record);
        }
        table.print(output.out, output.screen);
    }
}

} // namespace

int showStatus(const Output& output) {
    const Status status = findStatus();
    if (output.isJson) {
        printJson(output.out, jsonOf(status));
    } else {
        print(output, status);
    }
    return status.isOk() ? exitOk : exitProblem;
}

} // namespace bekctl
