#pragma once

#include "info/log/LoggingStack.h"
#include "ordak/TolvuBackupAgent.h"

#include <functional>

namespace agent::app {

/// Creates every long-lived object of the agent and calls `continuation` with the complete agent. The objects
/// live on the stack below this call and are destroyed in reverse order when it returns.
///
/// All of this happens before the process goes into the background and takes its lock, so that whoever starts
/// the daemon gets the error message for an unusable database, configuration or certificate.
void composeTolvuBackupAgent(info::LoggingStack& logging,
                             const std::function<void(ordak::TolvuBackupAgent&)>& continuation);

} // namespace agent::app
