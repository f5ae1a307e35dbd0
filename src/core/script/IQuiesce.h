#pragma once

#include <cstdint>
#include <set>
#include <string>

namespace agent::core::script {

/// The administrator's scripts that make applications flush and pause around a snapshot.
/// Owns:    nothing.
/// Threads: one caller of `runScript` at a time; `getScripts` from any.
/// Fails:   by exception. How a script ends, and whether in time, is no failure.
class IQuiesce {
public:
    virtual ~IQuiesce() = default;

    /// The names of the scripts in `directory`, in the order of their bytes; none if there is no such place.
    virtual std::set<std::string> getScripts(const std::string& directory) = 0;
    /// Runs a script before (`isPre`) or after a snapshot, blocking for about `timeoutSeconds` at most.
    /// A name without "/" is one that `getScripts` gives for the agent's own directory.
    virtual void runScript(const std::string& script, std::uint32_t timeoutSeconds, bool isPre) = 0;
};

} // namespace agent::core::script
