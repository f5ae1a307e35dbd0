#pragma once

#include "common/config/IConfig.h"
#include "core/backup/IPhaseFactory.h"
#include "core/backup/SnapshotSessionControl.h"
#include "core/backup/phase/PopulateVolumes.h"
#include "core/script/IQuiesce.h"
#include "db/IDataProvider.h"
#include "info/log/Logger.h"

#include <functional>

namespace agent::core::backup::phase {

/// Makes the phases of the agent's backups. See IPhaseFactory.
class PhaseFactory : public IPhaseFactory {
public:
    /// What every run needs; it must outlive the factory.
    struct Environment {
        info::Logger& logger;
        db::IDataProvider& dataProvider;
        script::IQuiesce& quiesce;
        const IConfig& config;
        PopulateVolumes::VolumeLookup volumeLookup;
        /// Makes the control of one run's snapshots.
        std::function<std::unique_ptr<SnapshotSessionControl>()> makeSnapshotControl;
    };

    explicit PhaseFactory(Environment environment);

    std::unique_ptr<IBackupPhases> create(std::shared_ptr<IBackupAttributes> backupAttributes,
                                          std::shared_ptr<ISnapshotAttributes> snapshotAttributes,
                                          IBackupStatusHandler& status) override;

private:
    const Environment environment;
};

} // namespace agent::core::backup::phase
