#pragma once

#include "core/backup/IBackupManager.h"
#include "info/log/Logger.h"
#include "os/Mutex.h"

namespace agent::core::backup {

/// See IBackupManager. Keeps recent backups after their end, so that the appliance can ask for their status:
/// from the sixth backup on, each new one evicts one that has ended.
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
    /// Returns a shared_ptr, so that the backup can't vanish while the caller uses it without the mutex.
    [[nodiscard]] std::shared_ptr<IBackup> find(const std::string& backupId);
    void insert(std::shared_ptr<IBackup> backup);
    void purge();

    info::Logger& logger;
    os::Mutex mutex;
    std::unordered_map<std::string, std::shared_ptr<IBackup>> backups GUARDED_BY(mutex);
};

} // namespace agent::core::backup
