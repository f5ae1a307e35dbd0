#pragma once

#include "common/config/IConfig.h"
#include "core/IEngine.h"
#include "core/backup/IBackupManager.h"
#include "core/script/ICommandUtility.h"
#include "db/IDataProviderExtended.h"
#include "info/IDriverInfoProvider.h"
#include "info/VolumeProvider.h"
#include "info/log/Logger.h"

#include <functional>

namespace agent::app {

/// Creates the engine, with the factories of its threads and backups, and calls `continuation` with it.
void composeEngine(info::Logger& logger, db::IDataProviderExtended& dataProvider,
                   const info::VolumeProvider& volumeProvider, const IDriverInfoProvider& driverInfo,
                   core::script::ICommandUtility& commandUtility, core::backup::IBackupManager& backupManager,
                   const IConfig& config, const std::function<void(core::IEngine&)>& continuation);

} // namespace agent::app
