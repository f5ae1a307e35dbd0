#pragma once

#include "core/backup/BackupStatus.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

namespace agent::core::backup {

class IBackup;

/// The register of backups by ID, in memory only.
/// Owns:    a share of every registered backup.
/// Threads: safe from any.
/// Fails:   exception::bad_request for an unknown ID, and for cancelling a backup that is already cancelled;
///          std::invalid_argument for adding a null backup or an ID twice.
class IBackupManager {
public:
    virtual ~IBackupManager() = default;
    virtual void addBackup(std::shared_ptr<IBackup> backup) = 0;
    virtual void getStatus(const std::string& backupId, BackupStatus& out) = 0;
    virtual void ping(const std::string& backupId) = 0;
    /// Adds every backup's overall state to `out`: a value of BackupState.
    virtual void getStatuses(std::unordered_map<std::string, std::uint32_t>& out) = 0;
    virtual void cancelBackup(const std::string& backupId) = 0;
    virtual void cancelAllBackups() = 0;
};

} // namespace agent::core::backup
