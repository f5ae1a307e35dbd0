#pragma once

#include "core/script/ICommandUtility.h"

namespace agent::core::script {

/// Starts commands as child processes of the agent.
/// Owns:    nothing.
/// Threads: safe from any.
/// Fails:   with PosixError if no pipe or process can be created. A command that the shell can't find is no
///          failure: the shell prints that to the stream.
class CommandUtility : public ICommandUtility {
public:
    std::unique_ptr<ICommandStream> createCommandStream(const std::string& command,
                                                        const std::string& directory,
                                                        bool killOnDestroy) override;
};

} // namespace agent::core::script
