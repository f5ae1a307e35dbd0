#pragma once

#include "info/log/LoggingStack.h"
#include "ordak/TolvuBackupAgent.h"

#include <functional>

namespace agent::app {

/// Makes every long-lived object of the agent and calls `continuation` with the whole. The objects live in
/// the stack scopes below this call and are destroyed in the reverse of their construction when it returns.
///
/// All of this happens before the process goes into the background and takes its lock: a database, a
/// configuration or a certificate that can't be used is reported to whoever has started the daemon.
void composeTolvuBackupAgent(info::LoggingStack& logging,
                             const std::function<void(ordak::TolvuBackupAgent&)>& continuation);

} // namespace agent::app
