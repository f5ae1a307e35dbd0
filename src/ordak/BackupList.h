#pragma once

#include "core/backup/IBackupManager.h"
#include "info/log/Logger.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /backup: the IDs of all backups that are remembered, by their state.
/// Threads: safe from any.
class BackupList {
public:
    BackupList(core::backup::IBackupManager& backups, info::Logger& logger);
    APIResponse operator()();

private:
    core::backup::IBackupManager& backups;
    info::Logger& logger;
};

} // namespace agent::ordak
