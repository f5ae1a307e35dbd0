#pragma once

#include "core/script/ICommandStream.h"

#include <memory>
#include <string>

namespace agent::core::script {

/// Starts commands.
/// Owns:    nothing.
/// Threads: safe from any; the stream then belongs to the caller.
/// Fails:   by exception if the command can't be started.
class ICommandUtility {
public:
    virtual ~ICommandUtility() = default;

    /// Runs `command` in a shell. The working directory is `directory`, or the agent's own if that is empty.
    /// If the command still runs when its stream is destroyed, it is killed if `killOnDestroy` is set, and
    /// waited for otherwise.
    virtual std::unique_ptr<ICommandStream>
    createCommandStream(const std::string& command, const std::string& directory, bool killOnDestroy) = 0;
};

} // namespace agent::core::script
