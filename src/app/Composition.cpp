#include "app/Composition.h"

#include "app/AgentConfigOptions.h"
#include "app/ApiComposition.h"
#include "app/EngineComposition.h"
#include "app/ServiceAddresses.h"
#include "app/Version.h"
#include "common/BaseDirectories.h"
#include "common/UUIDGenerator.h"
#include "common/config/Config.h"
#include "common/config/JSONConfigDataProvider.h"
#include "core/backup/BackupManager.h"
#include "core/script/CommandUtility.h"
#include "db/DataMigrator.h"
#include "db/DataProvider.h"
#include "info/DriverInfoProvider.h"
#include "info/VolumeProvider.h"
#include "install/UpdateChecker.h"
#include "ordak/FeatureManager.h"

namespace agent::app {

namespace {

using Continuation = std::function<void(ordak::TolvuBackupAgent&)>;

/// Builds the agent from its services and calls `continuation` with it.
void composeServices(info::Logger& logger, db::IDataProviderExtended& dataProvider,
                     const IDriverInfoProvider& driverInfo, const info::VolumeProvider& volumeProvider,
                     Config& config, core::IEngine& engine, ordak::HTTPServer& server,
                     const Continuation& continuation) {
    const std::string updateUrl = "https://" + std::string(updateServiceHost) + "/win/version_21230.json";
    install::UpdateChecker updateChecker(logger, dataProvider, engine, updateUrl, version, driverInfo);
    db::DataMigrator migrator(logger, dataProvider, volumeProvider);
    ordak::TolvuBackupAgent agent(logger, migrator, config, {&engine, &server, &updateChecker});
    continuation(agent);
}

} // namespace

void composeTolvuBackupAgent(info::LoggingStack& logging, const Continuation& continuation) {
    info::Logger& logger = logging.logger;
    UUIDGenerator uuidGenerator;
    db::DataProvider dataProvider(logger, uuidGenerator, dir::base());
    dataProvider.validateProvider();
    dataProvider.getAgentUUID(); // generates and stores the UUID on the first start
    logging.levelFilter.load(logger, dataProvider);
    const info::DriverInfoProvider driverInfo;
    const info::VolumeProvider volumeProvider(logger);
    core::backup::BackupManager backupManager(logger);
    ordak::FeatureManager features;
    JSONConfigDataProvider configProvider(dir::base() / "config.json");
    Config config(logger, configProvider, agentConfigOptions());
    core::script::CommandUtility commandUtility;
    composeEngine(logger, dataProvider, volumeProvider, driverInfo, commandUtility, backupManager, config,
                  [&](core::IEngine& engine) {
                      composeApi(logging, dataProvider, driverInfo, volumeProvider, backupManager, features,
                                 config, engine, [&](ordak::HTTPServer& server) {
                                     composeServices(logger, dataProvider, driverInfo, volumeProvider, config,
                                                     engine, server, continuation);
                                 });
                  });
}

} // namespace agent::app
