#pragma once

#include "Processes.h"

#include <optional>
#include <string>

namespace bekctl {

inline constexpr unsigned short agentPort = 25567;

enum class Port {
    closed,           ///< nothing listens
    otherProgram,     ///< another program listens
    silent,           ///< the agent listens but doesn't answer
    wrongCertificate, ///< another certificate is shown than the one on disk
    answers,
};

/// Whether the agent runs, as seen from outside.
struct AgentFacts {
    std::optional<Process> process;  ///< the agent
    std::optional<Process> listener; ///< the process that listens on the agent's port
    bool isForeground = false;       ///< no lock on the PID file, which only a background agent takes
    Port port = Port::closed;
    std::string problem; ///< why the port doesn't answer

    [[nodiscard]] bool isRunning() const { return process.has_value(); }
};

AgentFacts findAgent();

} // namespace bekctl
