#pragma once

#include "Processes.h"

#include <optional>
#include <string>

namespace bekctl {

inline constexpr unsigned short agentPort = 25567;

enum class Port {
    closed,   ///< nobody listens
    foreign,  ///< somebody who isn't the agent does
    silent,   ///< the agent listens and doesn't answer
    stranger, ///< it shows another certificate than the one on disk
    answers,
};

/// Whether the agent runs, as seen from outside.
struct AgentFacts {
    std::optional<Process> process;  ///< the agent
    std::optional<Process> listener; ///< who has the agent's port
    bool isForeground = false;       ///< it has no lock, which only one in the background takes
    Port port = Port::closed;
    std::string problem; ///< of the port, if it doesn't answer

    [[nodiscard]] bool isRunning() const { return process.has_value(); }
};

AgentFacts findAgent();

} // namespace bekctl
