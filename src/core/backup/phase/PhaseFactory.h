#pragma once

#include "core/backup/IPhaseFactory.h"
#include "core/backup/phase/PopulateVolumes.h"
#include "db/IDataProvider.h"
#include "info/log/Logger.h"

namespace agent::core::backup::phase {

/// Makes the phases of the agent's backups. See IPhaseFactory.
class PhaseFactory : public IPhaseFactory {
public:
    PhaseFactory(info::Logger& logger, db::IDataProvider& dataProvider,
                 PopulateVolumes::VolumeLookup volumeLookup);

    std::unique_ptr<IBackupPhases> create(std::shared_ptr<IBackupAttributes> backupAttributes,
                                          std::shared_ptr<ISnapshotAttributes> snapshotAttributes,
                                          IBackupStatusHandler& status) override;

private:
    info::Logger& logger;
    db::IDataProvider& dataProvider;
    const PopulateVolumes::VolumeLookup volumeLookup;
};

} // namespace agent::core::backup::phase
