#pragma once

#include <cstdint>
#include <set>
#include <string>

namespace agent::core::script {

/// The administrator's scripts that make applications flush and pause around a snapshot.
/// Owns:    nothing.
/// Threads: one caller of `runScript` at a time; `getScripts` from any.
/// Fails:   by exception. A script's exit status or timeout is no failure.
class IQuiesce {
public:
    virtual ~IQuiesce() = default;

    /// The names of the scripts in `directory`, sorted bytewise; empty if the directory doesn't exist.
    virtual std::set<std::string> getScripts(const std::string& directory) = 0;
    /// Runs a script before (`isPre`) or after a snapshot, and blocks for about `timeoutSeconds` at most.
    /// A name without "/" is looked up in the agent's own script directory.
    virtual void runScript(const std::string& script, std::uint32_t timeoutSeconds, bool isPre) = 0;
};

} // namespace agent::core::script
