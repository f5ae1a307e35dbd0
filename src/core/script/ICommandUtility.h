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

    /// Runs `command` in a shell, in `directory` or, if that is empty, where the agent runs. A command that
    /// still runs when its stream is destroyed is killed if `killOnDestroy`, else waited for.
    virtual std::unique_ptr<ICommandStream>
    createCommandStream(const std::string& command, const std::string& directory, bool killOnDestroy) = 0;
};

} // namespace agent::core::script
