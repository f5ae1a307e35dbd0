#pragma once

#include "core/backup/BackupSession.h"
#include "core/operation/IPhase.h"

namespace agent::core::backup::phase {

/// Opens the session. After this its set of remote targets is fixed.
class OpenBackupSession : public IPhase {
public:
    explicit OpenBackupSession(BackupSession& session);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    BackupSession& session;
};

} // namespace agent::core::backup::phase
