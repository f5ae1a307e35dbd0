#pragma once

#include "core/backup/IBackupManager.h"
#include "ordak/APIExtendedData.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /backup/<id>: how a backup is doing. To ask is a sign of life of the appliance.
/// Threads: safe from any.
/// Fails:   exception::bad_request for an unknown backup.
class BackupStatus {
public:
    explicit BackupStatus(core::backup::IBackupManager& backups) : backups(backups) {}
    APIResponse operator()(const std::string& body, const APIExtendedData& request);

private:
    core::backup::IBackupManager& backups;
};

} // namespace agent::ordak
