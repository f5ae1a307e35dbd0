#pragma once

#include "core/backup/IBackupManager.h"
#include "ordak/APIExtendedData.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /backup/<id>: the status of a backup. Each request also tells the backup that the appliance is alive.
/// Owns:    nothing; the constructor's arguments must outlive it.
/// Threads: any thread may call it.
/// Fails:   throws exception::bad_request for an unknown backup.
class BackupStatus {
public:
    explicit BackupStatus(core::backup::IBackupManager& backups) : backups(backups) {}
    APIResponse operator()(const std::string& body, const APIExtendedData& request);

private:
    core::backup::IBackupManager& backups;
};

} // namespace agent::ordak
