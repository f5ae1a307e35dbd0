#include "core/backup/phase/PostBackupRecord.h"

#include "info/BackupableVolume.h"

#include <algorithm>

namespace agent::core::backup::phase {

namespace {

/// The hook for systems that need a record.
class BackupRecorder {
public:
    BackupRecorder(info::Logger& /*logger*/, db::IDataProvider& /*dataProvider*/) {}
    void operator()(const PopulateVolumes::Volumes& /*volumes*/) const {}
};

} // namespace

PostBackupRecord::PostBackupRecord(info::Logger& logger, db::IDataProvider& dataProvider,
                                   const PopulateVolumes::Volumes& volumes, bool success,
                                   const std::shared_ptr<ISnapshotInfo>& snapshotInfo)
    : logger(logger),
      dataProvider(dataProvider),
      volumes(volumes),
      success(success),
      snapshotInfo(snapshotInfo) {}

void PostBackupRecord::execute() {
    if (!success) {
        return;
    }
    const auto osVolume =
        std::find_if(volumes.begin(), volumes.end(), [](const auto& volume) { return volume->isOSVolume(); });
    if (osVolume == volumes.end()) {
        return;
    }
    if (snapshotInfo->getVolumeSnapshotInfo((*osVolume)->getUuid()).incrementalPreserved) {
        BackupRecorder(logger, dataProvider)(volumes);
    }
}

std::string PostBackupRecord::getName() const {
    return "Post backup record";
}

} // namespace agent::core::backup::phase
