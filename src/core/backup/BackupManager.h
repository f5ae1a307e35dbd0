#pragma once

#include "core/backup/IBackupManager.h"
#include "info/log/Logger.h"

#include <mutex>

namespace agent::core::backup {

/// See IBackupManager. Keeps the backups of the recent past, so that the appliance can ask how they went:
/// from the sixth on, each new one makes one that has ended go.
class BackupManager : public IBackupManager {
public:
    explicit BackupManager(info::Logger& logger);

    void addBackup(std::shared_ptr<IBackup> backup) override;
    void getStatus(const std::string& backupId, BackupStatus& out) override;
    void ping(const std::string& backupId) override;
    void getStatuses(std::unordered_map<std::string, std::uint32_t>& out) override;
    void cancelBackup(const std::string& backupId) override;
    void cancelAllBackups() override;

private:
    /// A share of the backup, so that it can't vanish while the caller works on it without the mutex.
    [[nodiscard]] std::shared_ptr<IBackup> find(const std::string& backupId);
    void insert(std::shared_ptr<IBackup> backup);
    void purge();

    info::Logger& logger;
    std::mutex mutex;
    std::unordered_map<std::string, std::shared_ptr<IBackup>> backups; // guarded by mutex
};

} // namespace agent::core::backup
