#pragma once

#include "core/backup/BackupSession.h"
#include "core/operation/IPhase.h"
#include "db/IDataProvider.h"

namespace agent::core::backup::phase {

/// Stores the checksums of the written images. Runs after all volumes are copied, so that a failed or
/// cancelled backup never marks an image as valid.
class CloseBackupSession : public IPhase {
public:
    CloseBackupSession(BackupSession& session, db::IDataProvider& dataProvider);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    BackupSession& session;
    db::IDataProvider& dataProvider;
};

} // namespace agent::core::backup::phase
