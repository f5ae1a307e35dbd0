#pragma once

#include "core/backup/IBackupAttributes.h"
#include "core/backup/IBackupStatusHandler.h"
#include "core/backup/ISnapshotAttributes.h"
#include "core/backup/ISnapshotInfo.h"
#include "core/backup/phase/PopulateVolumes.h"
#include "core/operation/IPhase.h"
#include "core/script/IQuiesce.h"
#include "info/log/Logger.h"

namespace agent::core::backup::phase {

/// Takes the snapshots of all volumes, and runs the administrator's scripts before and after that. The
/// scripts also run after a failed snapshot, but not if a script couldn't be run before it.
class StartSnapshotting : public IPhase {
public:
    using Volumes = PopulateVolumes::Volumes;

    /// Fills `snapshotInfo`.
    StartSnapshotting(info::Logger& logger, SnapshotSessionControl& control,
                      std::shared_ptr<ISnapshotInfo>& snapshotInfo, const Volumes& volumes,
                      IBackupAttributes& attributes, const ISnapshotAttributes& snapshotAttributes,
                      script::IQuiesce& quiesce, IBackupStatusHandler& status);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    void runScripts(bool isPre);
    void takeSnapshots();
    /// Without the record of the changes since the last backup, every block has to be compared.
    void downgradeIfUntracked(const info::BackupableVolume& volume);

    info::Logger& logger;
    SnapshotSessionControl& control;
    std::shared_ptr<ISnapshotInfo>& snapshotInfo;
    const Volumes& volumes;
    IBackupAttributes& attributes;
    const ISnapshotAttributes& snapshotAttributes;
    script::IQuiesce& quiesce;
    IBackupStatusHandler& status;
};

} // namespace agent::core::backup::phase
