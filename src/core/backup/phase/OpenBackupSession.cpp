#include "core/backup/phase/OpenBackupSession.h"

namespace agent::core::backup::phase {

OpenBackupSession::OpenBackupSession(BackupSession& session) : session(session) {}

void OpenBackupSession::execute() {
    session.open();
}

std::string OpenBackupSession::getName() const {
    return "Open Backup Session";
}

} // namespace agent::core::backup::phase
