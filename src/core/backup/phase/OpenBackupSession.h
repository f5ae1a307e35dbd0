#pragma once

#include "core/backup/BackupSession.h"
#include "core/operation/IPhase.h"

namespace agent::core::backup::phase {

/// Opens the session: the set of remote targets is complete.
class OpenBackupSession : public IPhase {
public:
    explicit OpenBackupSession(BackupSession& session);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    BackupSession& session;
};

} // namespace agent::core::backup::phase
