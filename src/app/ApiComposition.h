#pragma once

#include "common/config/IConfigData.h"
#include "core/IEngine.h"
#include "core/backup/IBackupManager.h"
#include "db/IDataProviderExtended.h"
#include "info/IDriverInfoProvider.h"
#include "info/VolumeProvider.h"
#include "info/log/LoggingStack.h"
#include "ordak/FeatureManager.h"
#include "ordak/HTTPServer.h"

#include <functional>

namespace agent::app {

/// Builds the device API: loads or creates the certificates, registers every handler, and calls
/// `continuation` with the server, which is not started yet.
void composeApi(info::LoggingStack& logging, db::IDataProviderExtended& dataProvider,
                const IDriverInfoProvider& driverInfo, const info::VolumeProvider& volumeProvider,
                core::backup::IBackupManager& backupManager, ordak::FeatureManager& features,
                IConfigData& config, core::IEngine& engine,
                const std::function<void(ordak::HTTPServer&)>& continuation);

} // namespace agent::app
