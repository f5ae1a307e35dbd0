#pragma once

#include "core/Heartbeat.h"
#include "db/IDataProviderExtended.h"

#include <memory>

namespace agent::app {

/// Creates the watchdog of one backup. Returns null if the administrator has disabled it in the database,
/// with the key "disable_ordak_ping_timeout". If the key can't be read, the watchdog stays on.
std::unique_ptr<core::Heartbeat> makeBackupHeartbeat(db::IDataProviderExtended& dataProvider);

} // namespace agent::app
