#include "AgentFacts.h"

#include "AgentPaths.h"
#include "CertificateFile.h"
#include "FileLocks.h"
#include "Handshake.h"

#include <exception>

namespace bekctl {

namespace {

constexpr const char* pidFile = "/var/run/bekd.pid";
constexpr const char* programName = "bekd";

void identify(AgentFacts& facts) {
    if (const std::optional<pid_t> holder = lockHolder(pidFile)) {
        facts.process = findProcess(*holder);
    }
    if (!facts.process && facts.listener && facts.listener->name == programName) {
        facts.process = facts.listener;
        facts.isForeground = true;
    }
}

Port lookAtPort(const AgentFacts& facts, std::string& problem) {
    if (!facts.listener) {
        problem = "nobody listens";
        return Port::closed;
    }
    if (!facts.process || facts.listener->pid != facts.process->pid) {
        problem = "process " + std::to_string(facts.listener->pid) + " has it, " + facts.listener->name;
        return Port::otherProgram;
    }
    try {
        const std::string shown = certificateShownAt(agentPort);
        if (shown == CertificateFile(certificatePath()).bytes()) {
            return Port::answers;
        }
        problem = "shows another certificate than the one on disk";
        return Port::wrongCertificate;
    } catch (const std::exception& error) {
        problem = error.what();
        return Port::silent;
    }
}

} // namespace

AgentFacts findAgent() {
    AgentFacts facts;
    facts.listener = findListener(agentPort);
    identify(facts);
    facts.port = lookAtPort(facts, facts.problem);
    return facts;
}

} // namespace bekctl
