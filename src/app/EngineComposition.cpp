#include "app/EngineComposition.h"

#include "app/BackupHeartbeat.h"
#include "core/Engine.h"
#include "core/backup/Backup.h"
#include "core/backup/BackupThread.h"
#include "core/operation/CancelableOperation.h"
#include "core/script/Quiesce.h"

#include <utility>

namespace agent::app {

void composeEngine(info::Logger& logger, db::IDataProviderExtended& dataProvider,
                   const info::VolumeProvider& volumeProvider, const IDriverInfoProvider& driverInfo,
                   core::script::ICommandUtility& commandUtility, core::backup::IBackupManager& backupManager,
                   const IConfig& config, const std::function<void(core::IEngine&)>& continuation) {
    core::script::Quiesce quiesce(logger, commandUtility);
    const auto makeBackup = [&](auto backupAttributes, auto snapshotAttributes) {
        std::unique_ptr<core::Heartbeat> heartbeat = makeBackupHeartbeat(dataProvider);
        std::function<void()> poll;
        if (heartbeat) {
            poll = [watched = heartbeat.get()] { watched->check(); };
        }
        return std::make_unique<core::backup::Backup>(
            logger, volumeProvider, quiesce, std::move(backupAttributes), std::move(snapshotAttributes),
            dataProvider, std::make_unique<core::CancelableOperation>(std::move(poll)), std::move(heartbeat),
            config, "");
    };
    core::Engine engine(
        logger, driverInfo, quiesce, backupManager,
        [&] { return std::make_unique<core::backup::BackupThread>(logger); }, makeBackup);
    continuation(engine);
}

} // namespace agent::app
