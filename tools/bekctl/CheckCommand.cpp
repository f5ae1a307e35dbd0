#include "AgentChecks.h"
#include "AgentPaths.h"
#include "Commands.h"
#include "LogFiles.h"
#include "MachineChecks.h"
#include "SilentLogger.h"
#include "VolumeChecks.h"
#include "tools/common/Json.h"
#include "tools/common/Table.h"

#include <algorithm>
#include <exception>
#include <ostream>

namespace bekctl {

using tools::Colour;
using tools::Json;
using tools::plain;
using tools::printIndented;
using tools::printJson;
using tools::textOrNull;
using tools::wrapped;

namespace {

/// The facts that several checks need.
struct CheckInputs {
    AgentFacts agent = findAgent();
    std::optional<Database> database;
    std::string databaseProblem;
    Settings settings{configPath()};
    LogFindings logs = readLogs();

    [[nodiscard]] bool isBackupRunning() const {
        return agent.isRunning() && logs.log->runningSince().has_value();
    }
};

void readInto(CheckInputs& inputs) {
    try {
        inputs.database = readDatabase(databasePath());
    } catch (const std::exception& error) {
        inputs.databaseProblem = plain(error.what());
    }
}

Findings checkAllVolumes(const CheckInputs& inputs, const DriverFacts& driver, agent::info::Logger& logger) {
    try {
        return checkVolumes(findVolumes(logger, driver, inputs.settings.config()),
                            inputs.database ? inputs.database->volumes : std::vector<std::string>(),
                            inputs.isBackupRunning());
    } catch (const std::exception& error) {
        return {{"volume", Verdict::failure, "The volumes can't be found: " + plain(error.what()) + ".",
                 "See that dbus and udisks2 run."}};
    }
}

Findings checkLog(const LogFindings& logs) {
    if (!logs.problem.empty()) {
        return {{"log", Verdict::warning, "Not all of the log could be read: " + logs.problem + ".",
                 "Look at the files in " + (agent::dir::base() / "logs").str() + "."}};
    }
    return {{"log", Verdict::ok, "The log can be read."}};
}

Findings checkAll(const std::string& target) {
    SilentLogger silent;
    CheckInputs inputs;
    readInto(inputs);
    const DriverFacts driver(silent.logger);
    Findings all;
    const auto add = [&](Findings found) { std::ranges::move(found, std::back_inserter(all)); };
    add(checkAgent(inputs.agent));
    add(checkDatabase(inputs.database, inputs.databaseProblem));
    add(checkIdentity(readIdentity(), std::time(nullptr)));
    add({checkClock(isClockSynchronised())});
    add(checkSettings(inputs.settings));
    add({checkDisk(findDiskSpace(agent::dir::base()))});
    add(checkLog(inputs.logs));
    add(checkServices());
    add(checkDriver(driver));
    add(checkAllVolumes(inputs, driver, silent.logger));
    add(checkScripts(scriptsPath()));
    add({checkTarget(target, inputs.logs.log->lastTarget())});
    return all;
}

std::string nameOf(Verdict verdict) {
    switch (verdict) {
    case Verdict::ok:
        return "ok";
    case Verdict::warning:
        return "warning";
    case Verdict::failure:
        return "failure";
    case Verdict::open:
        break;
    }
    return "open";
}

Colour colourOf(Verdict verdict) {
    switch (verdict) {
    case Verdict::ok:
        return Colour::green;
    case Verdict::warning:
        return Colour::yellow;
    case Verdict::failure:
        return Colour::red;
    case Verdict::open:
        break;
    }
    return Colour::none;
}

std::ptrdiff_t count(const Findings& findings, Verdict verdict) {
    return std::ranges::count(findings, verdict, &Finding::verdict);
}

Json jsonOf(const Findings& findings) {
    Json checks = Json::array();
    for (const Finding& finding : findings) {
        checks.push_back({{"name", finding.name},
                          {"verdict", nameOf(finding.verdict)},
                          {"text", finding.text},
                          {"remedy", textOrNull(finding.remedy)},
                          {"volume", textOrNull(finding.volume)}});
    }
    return {{"checks", checks},
            {"failures", count(findings, Verdict::failure)},
            {"warnings", count(findings, Verdict::warning)}};
}

/// Prints the verdict before the text, and aligns the lines of the text.
void print(const Output& output, const Finding& finding) {
    constexpr std::size_t indent = 9;
    const std::size_t columns = output.screen.columns;
    const std::string verdict = nameOf(finding.verdict);
    const std::string blanks(indent - verdict.size(), ' ');
    const std::vector<std::string> lines =
        wrapped(finding.text, columns > 2 * indent ? columns - indent : columns);
    output.out << output.screen.paint(colourOf(finding.verdict), verdict) << blanks << lines.front() << '\n';
    for (std::size_t index = 1; index < lines.size(); ++index) {
        output.out << std::string(indent, ' ') << lines[index] << '\n';
    }
    if (!finding.remedy.empty()) {
        printIndented(output.out, "-> " + finding.remedy, indent, columns);
    }
}

void print(const Output& output, const Findings& findings) {
    for (const Finding& finding : findings) {
        print(output, finding);
    }
    output.out << "Failures: " << count(findings, Verdict::failure)
               << ", warnings: " << count(findings, Verdict::warning) << "\n";
}

} // namespace

int showCheck(const Output& output, const std::string& target) {
    const Findings findings = checkAll(target);
    if (output.isJson) {
        printJson(output.out, jsonOf(findings));
    } else {
        print(output, findings);
    }
    return count(findings, Verdict::failure) > 0 ? exitProblem : exitOk;
}

} // namespace bekctl
