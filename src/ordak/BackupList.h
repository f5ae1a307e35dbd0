#pragma once

#include "core/backup/IBackupManager.h"
#include "info/log/Logger.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /backup: the IDs of all backups that the manager knows, grouped by their state.
/// Owns:    nothing; the constructor's arguments must outlive it.
/// Threads: any thread may call it.
/// Fails:   never, unless memory runs out.
class BackupList {
public:
    BackupList(core::backup::IBackupManager& backups, info::Logger& logger);
    APIResponse operator()();

private:
    core::backup::IBackupManager& backups;
    info::Logger& logger;
};

} // namespace agent::ordak
