#pragma once

#include "core/backup/BackupSession.h"
#include "core/operation/IPhase.h"
#include "db/IDataProvider.h"

namespace agent::core::backup::phase {

/// Stores the checksums of the images that have been written. It comes after every copy, so that a backup
/// which failed or was cancelled never vouches for an image.
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
