#pragma once

#include "core/backup/ISnapshotInfo.h"
#include "core/backup/phase/PopulateVolumes.h"
#include "core/operation/IPhase.h"
#include "db/IDataProvider.h"
#include "info/log/Logger.h"

namespace agent::core::backup::phase {

/// The hook that records a successful backup whose operating-system volume is tracked. Linux needs no such
/// record, so the hook does nothing.
class PostBackupRecord : public IPhase {
public:
    PostBackupRecord(info::Logger& logger, db::IDataProvider& dataProvider,
                     const PopulateVolumes::Volumes& volumes, bool success,
                     const std::shared_ptr<ISnapshotInfo>& snapshotInfo);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    info::Logger& logger;
    db::IDataProvider& dataProvider;
    const PopulateVolumes::Volumes& volumes;
    const bool success;
    const std::shared_ptr<ISnapshotInfo>& snapshotInfo;
};

} // namespace agent::core::backup::phase
