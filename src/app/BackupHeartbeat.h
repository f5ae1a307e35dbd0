#pragma once

#include "core/Heartbeat.h"
#include "db/IDataProviderExtended.h"

#include <memory>

namespace agent::app {

/// The watchdog of a backup that is being made now; null if the administrator has switched it off in the
/// database, by the key "disable_ordak_ping_timeout". A key that can't be read counts as not set: the
/// watchdog is the safe side.
std::unique_ptr<core::Heartbeat> makeBackupHeartbeat(db::IDataProviderExtended& dataProvider);

} // namespace agent::app
