#pragma once

#include "core/backup/IBackupAttributes.h"
#include "core/backup/phase/PopulateVolumes.h"
#include "core/operation/IPhase.h"
#include "db/IDataProvider.h"
#include "info/log/Logger.h"

namespace agent::core::backup::phase {

/// Refuses volumes that can't be snapshotted, before any volume is changed. Sets the type to FULL for volumes
/// that aren't in the database, and to DIFFERENTIAL_MERGE if the database can't be read.
class ValidateLocalTargets : public IPhase {
public:
    using Volumes = PopulateVolumes::Volumes;

    ValidateLocalTargets(info::Logger& logger, const Volumes& volumes, IBackupAttributes& attributes,
                         db::IDataProvider& dataProvider);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    void requireUsable(const info::BackupableVolume& volume);
    void settleType(const info::BackupableVolume& volume);

    info::Logger& logger;
    const Volumes& volumes;
    IBackupAttributes& attributes;
    db::IDataProvider& dataProvider;
};

} // namespace agent::core::backup::phase
