#include "app/EngineComposition.h"

#include "app/BackupHeartbeat.h"
#include "core/Engine.h"
#include "core/backup/Backup.h"
#include "core/backup/BackupThread.h"
#include "core/backup/SnapshotSessionControl.h"
#include "core/backup/phase/PhaseFactory.h"
#include "core/operation/CancelableOperation.h"
#include "core/script/Quiesce.h"
#include "info/CowFileSize.h"

#include <utility>

namespace agent::app {

namespace {

using core::backup::Backup;
using core::backup::SnapshotSessionControl;

std::unique_ptr<core::backup::IBackup>
makeBackup(info::Logger& logger, core::backup::IPhaseFactory& phaseFactory,
           db::IDataProviderExtended& dataProvider,
           std::shared_ptr<core::backup::IBackupAttributes> backupAttributes,
           std::shared_ptr<core::backup::ISnapshotAttributes> snapshotAttributes) {
    std::unique_ptr<core::Heartbeat> heartbeat = makeBackupHeartbeat(dataProvider);
    std::function<void()> poll;
    if (heartbeat) {
        poll = [watched = heartbeat.get()] { watched->check(); };
    }
    return std::make_unique<Backup>(
        logger, phaseFactory, std::move(backupAttributes), std::move(snapshotAttributes),
        std::make_unique<core::CancelableOperation>(std::move(poll)), std::move(heartbeat), "");
}

} // namespace

void composeEngine(info::Logger& logger, db::IDataProviderExtended& dataProvider,
                   const IDriverInfoProvider& driverInfo, info::VolumeProvider& volumeProvider,
                   core::script::ICommandUtility& commandUtility, core::backup::IBackupManager& backupManager,
                   const Config& config, const std::function<void(core::IEngine&)>& continuation) {
    core::script::Quiesce quiesce(logger, commandUtility);
    info::CowFileSize cowFileSize(config);
    core::backup::phase::PhaseFactory phaseFactory(
        {logger, dataProvider, quiesce, config,
         [&](const std::string& uuid) { return volumeProvider.getBackupableVolume(uuid); },
         [&] { return std::make_unique<SnapshotSessionControl>(logger, cowFileSize); }});
    core::Engine engine(
        logger, driverInfo, quiesce, backupManager,
        [&] { return std::make_unique<core::backup::BackupThread>(logger); },
        [&](auto backupAttributes, auto snapshotAttributes) {
            return makeBackup(logger, phaseFactory, dataProvider, std::move(backupAttributes),
                              std::move(snapshotAttributes));
        });
    continuation(engine);
}

} // namespace agent::app
