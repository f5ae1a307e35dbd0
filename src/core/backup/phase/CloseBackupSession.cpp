#include "core/backup/phase/CloseBackupSession.h"

namespace agent::core::backup::phase {

CloseBackupSession::CloseBackupSession(BackupSession& session, db::IDataProvider& dataProvider)
    : session(session), dataProvider(dataProvider) {}

void CloseBackupSession::execute() {
    session.finishWriting(dataProvider);
}

std::string CloseBackupSession::getName() const {
    return "Close Backup Session";
}

} // namespace agent::core::backup::phase
