#include "core/backup/phase/StartSnapshotting.h"

#include "core/backup/BackupType.h"
#include "core/backup/SnapshotInfo.h"
#include "info/BackupableVolume.h"

#include <exception>

namespace agent::core::backup::phase {

StartSnapshotting::StartSnapshotting(info::Logger& logger, SnapshotSessionControl& control,
                                     std::shared_ptr<ISnapshotInfo>& snapshotInfo, const Volumes& volumes,
                                     IBackupAttributes& attributes,
                                     const ISnapshotAttributes& snapshotAttributes, script::IQuiesce& quiesce,
                                     IBackupStatusHandler& status)
    : logger(logger),
      control(control),
      snapshotInfo(snapshotInfo),
      volumes(volumes),
      attributes(attributes),
      snapshotAttributes(snapshotAttributes),
      quiesce(quiesce),
      status(status) {}

void StartSnapshotting::execute() {
    runScripts(true);
    try {
        takeSnapshots();
        runScripts(false);
    } catch (const std::exception& error) {
        logger.log(info::level::error, info::reasonOf(error, info::reason("snapshot-failed")),
                   "Exception caught trying to create snapshots: %s", error.what());
        status.setSnapshotError();
        runScripts(false);
        throw;
    }
    info::LogEntry(logger, info::level::info) << "Volumes successfully started snapshotting...";
}

void StartSnapshotting::runScripts(bool isPre) {
    const char* const word = isPre ? "Quiesc" : "Unquiesc";
    logger.log(info::level::info, "%sing volumes...", word);
    for (const auto& volume : volumes) {
        for (const VolumeScript& script : attributes.getScripts(volume->getUuid())) {
            quiesce.runScript(script.scriptname, script.timeout, isPre);
        }
    }
    logger.log(info::level::info, "Volumes %sed", word);
}

void StartSnapshotting::takeSnapshots() {
    snapshotInfo =
        std::make_shared<SnapshotInfo>(control.startSnapshots(volumes, attributes, snapshotAttributes));
    for (const auto& volume : volumes) {
        downgradeIfUntracked(*volume);
    }
}

void StartSnapshotting::downgradeIfUntracked(const info::BackupableVolume& volume) {
    const std::string& uuid = volume.getUuid();
    if (!attributes.isIncremental(uuid) || snapshotInfo->getVolumeSnapshotInfo(uuid).incrementalPreserved) {
        return;
    }
    logger.log(info::level::error, info::reason("everything-compared"),
               "Failed to snapshot while preserving incremental tracking information for volume %s",
               uuid.c_str());
    logger.log(info::level::info, "Downgrading backup type to DIFFERENTIAL_MERGE for volume %s",
               uuid.c_str());
    attributes.setBackupType(uuid, DIFFERENTIAL_MERGE);
}

std::string StartSnapshotting::getName() const {
    return "Start Snapshotting";
}

} // namespace agent::core::backup::phase
