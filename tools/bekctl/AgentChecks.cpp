#include "AgentChecks.h"

#include "info/DriverVersion.h"
#include "tools/common/Text.h"

namespace bekctl {

using tools::localText;

namespace {

constexpr long daysBeforeWarning = 30;

Finding checkPort(const AgentFacts& agent) {
    const std::string name = "Port " + std::to_string(agentPort);
    switch (agent.port) {
    case Port::answers:
        return {"port", Verdict::ok, name + " answers with the certificate on disk."};
    case Port::wrongCertificate:
        return {"port", Verdict::failure, name + " shows another certificate than the one on disk.",
                "Start the agent anew, or put the certificate back that it was started with."};
    case Port::silent:
        return {"port", Verdict::failure, name + " doesn't answer: " + agent.problem + ".",
                "See the log for what the agent is doing; start it anew if it stays so."};
    case Port::otherProgram:
        return {"port", Verdict::failure, name + " belongs to somebody else: " + agent.problem + ".",
                "End that program, and start the agent."};
    case Port::closed:
        break;
    }
    return {"port", Verdict::failure, "Nobody listens at port " + std::to_string(agentPort) + ".",
            "Start the agent."};
}

Finding checkValidity(const IdentityPart& part, std::time_t now) {
    const std::string name = "certificate-" + part.name;
    const std::string subject = "The " + part.name + "'s certificate ";
    const std::string remedy = "Have new certificates made, see provisioning.";
    if (!part.certificate) {
        return {name, Verdict::failure, part.problem + ".", remedy};
    }
    const CertificateFile& certificate = *part.certificate;
    if (now < certificate.begin) {
        return {name, Verdict::failure, subject + "isn't valid before " + localText(certificate.begin) + ".",
                "Compare the clock of this machine; else have another certificate made."};
    }
    const std::string end = localText(certificate.end);
    if (now > certificate.end) {
        return {name, Verdict::failure, subject + "has ended at " + end + ".", remedy};
    }
    if (certificate.daysLeft(now) < daysBeforeWarning) {
        return {name, Verdict::warning, subject + "ends at " + end + ".", remedy};
    }
    return {name, Verdict::ok, subject + "is valid until " + end + "."};
}

} // namespace

Findings checkAgent(const AgentFacts& agent) {
    Findings found;
    if (!agent.process) {
        found.push_back({"agent", Verdict::failure, "The agent doesn't run.",
                         "Start it: systemctl start bekd, or bekd where there is no systemd. If it doesn't "
                         "stay, its log and its standard error say why."});
    } else if (agent.process->isReplaced) {
        found.push_back({"agent", Verdict::warning, "The agent runs from a program that has been replaced.",
                         "Start it anew when no backup runs: systemctl restart bekd."});
    } else {
        found.push_back(
            {"agent", Verdict::ok, "The agent runs, process " + std::to_string(agent.process->pid) + "."});
    }
    found.push_back(checkPort(agent));
    return found;
}

Findings checkDatabase(const std::optional<Database>& database, const std::string& problem) {
    if (!database) {
        return {{"database", Verdict::failure, problem + ".",
                 "Start the agent if it never ran here. A damaged database: stop the agent, move the file "
                 "away, start it, pair again; the next backups then copy or compare everything."}};
    }
    Findings found{{"database", Verdict::ok, "The database can be read."}};
    if (database->pairing) {
        found.push_back({"pairing", Verdict::ok,
                         "Paired with device " + std::to_string(database->pairing->device) + "."});
    } else {
        found.push_back({"pairing", Verdict::failure, "The agent isn't paired, so nobody can order a backup.",
                         "Add this machine on the appliance."});
    }
    return found;
}

Findings checkIdentity(const Identity& identity, std::time_t now) {
    Findings found{checkValidity(identity.agent, now), checkValidity(identity.authority, now)};
    const std::string remedy =
        "Put the three files there that were made together, or remove ca.crt and start "
        "the agent anew to have all of them made.";
    if (!identity.keyProblem.empty()) {
        found.push_back({"key", Verdict::failure, identity.keyProblem + ".", remedy});
    } else if (identity.keyMatches) {
        found.push_back(
            *identity.keyMatches
                ? Finding{"key", Verdict::ok, "The key belongs to the certificate."}
                : Finding{"key", Verdict::failure, "The key is that of another certificate.", remedy});
    }
    if (identity.isSignedByAuthority) {
        found.push_back(*identity.isSignedByAuthority
                            ? Finding{"trust", Verdict::ok, "The authority has signed the certificate."}
                            : Finding{"trust", Verdict::failure,
                                      "The certificate isn't signed by the authority in ca.crt.", remedy});
    }
    return found;
}

Findings checkSettings(const Settings& settings) {
    if (!settings.problem().empty()) {
        return {{"settings", Verdict::failure, settings.problem() + ".",
                 "Correct or remove the file: the agent doesn't start with it."}};
    }
    Findings found;
    for (const std::string& complaint : settings.complaints()) {
        found.push_back({"settings", Verdict::warning, complaint + ".",
                         "Correct it in config.json while the agent is stopped; the default holds until "
                         "then."});
    }
    if (found.empty()) {
        found.push_back({"settings", Verdict::ok, "The settings fit."});
    }
    return found;
}

Findings checkDriver(const DriverFacts& driver) {
    const std::string shown = nameOf(driver.kind()) + ", version " + driver.version();
    if (driver.kind() == DriverKind::none) {
        return {{"driver", Verdict::failure, "The snapshot driver shows nothing of itself.",
                 "Load the driver's module or install its library, see that its service runs; tolvuctl list "
                 "wakes the stand-in after a start of the machine."}};
    }
    if (!driver.isNewEnough()) {
        return {{"driver", Verdict::failure, "The snapshot driver is too old or unreadable: " + shown + ".",
                 std::string("Install version ") + agent::info::minimumDriverVersion + " or later."}};
    }
    return {{"driver", Verdict::ok, "The snapshot driver is there: " + shown + "."}};
}

} // namespace bekctl
