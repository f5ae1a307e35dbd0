#include "core/backup/phase/ValidateRemoteTargets.h"

namespace agent::core::backup::phase {

ValidateRemoteTargets::ValidateRemoteTargets(BackupSession& session, IBackupAttributes& attributes,
                                             RemoteTargetValidator& validator)
    : session(session), attributes(attributes), validator(validator) {}

void ValidateRemoteTargets::execute() {
    session.validateRemoteTargets(validator, attributes);
}

std::string ValidateRemoteTargets::getName() const {
    return "Validate Remote Targets";
}

} // namespace agent::core::backup::phase
