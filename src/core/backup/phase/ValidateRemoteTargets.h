#pragma once

#include "core/backup/BackupSession.h"
#include "core/backup/IBackupAttributes.h"
#include "core/backup/RemoteTargetValidator.h"
#include "core/operation/IPhase.h"

namespace agent::core::backup::phase {

/// Changes the type of each incremental volume to DIFFERENTIAL_MERGE if its remote image may not be the one
/// of the last backup.
class ValidateRemoteTargets : public IPhase {
public:
    ValidateRemoteTargets(BackupSession& session, IBackupAttributes& attributes,
                          RemoteTargetValidator& validator);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    BackupSession& session;
    IBackupAttributes& attributes;
    RemoteTargetValidator& validator;
};

} // namespace agent::core::backup::phase
