#include "core/backup/BackupManager.h"

#include "common/Exceptions.h"
#include "core/backup/IBackup.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace agent::core::backup {

namespace {

constexpr std::size_t purgeThreshold = 6;

BackupState overallState(const IBackup& backup) {
    if (backup.isActive()) {
        return BACKUP_ACTIVE;
    }
    return backup.isFinished() ? BACKUP_FINISHED : BACKUP_FAILED;
}

} // namespace

BackupManager::BackupManager(info::Logger& logger) : logger(logger) {}

void BackupManager::addBackup(std::shared_ptr<IBackup> backup) {
    if (!backup) {
        throw std::invalid_argument("BackupManager provided null backup object");
    }
    insert(std::move(backup));
    purge();
}

void BackupManager::getStatus(const std::string& backupId, BackupStatus& out) {
    find(backupId)->getStatus(out);
}

void BackupManager::ping(const std::string& backupId) {
    find(backupId)->ping();
}

void BackupManager::getStatuses(std::unordered_map<std::string, std::uint32_t>& out) {
    const os::Lock lock(mutex);
    for (const auto& [key, backup] : backups) {
        const std::string id = backup->getId();
        if (!out.emplace(id, overallState(*backup)).second) {
            throw std::invalid_argument("Could not insert a status object for backup with ID " + id +
                                        " into the map given.");
        }
    }
}

void BackupManager::cancelBackup(const std::string& backupId) {
    const std::shared_ptr<IBackup> backup = find(backupId);
    if (backup->isCancelled()) {
        const std::string refusal = "Backup with ID " + backupId + " is already canceled";
        info::LogEntry(logger, info::level::info) << refusal;
        throw exception::bad_request(refusal);
    }
    backup->cancel();
}

void BackupManager::cancelAllBackups() {
    const os::Lock lock(mutex);
    if (backups.empty()) {
        return;
    }
    info::LogEntry(logger, info::level::info) << "BackupManager canceling all backups...";
    for (const auto& [id, backup] : backups) {
        if (!backup->isCancelled() && !backup->isFinished()) {
            backup->cancel();
        }
    }
    info::LogEntry(logger, info::level::info) << "BackupManager canceled all backups";
}

std::shared_ptr<IBackup> BackupManager::find(const std::string& backupId) {
    const os::Lock lock(mutex);
    const auto found = backups.find(backupId);
    if (found == backups.end()) {
        throw exception::bad_request("A backup with ID " + backupId + " does not exist.");
    }
    return found->second;
}

void BackupManager::insert(std::shared_ptr<IBackup> backup) {
    const os::Lock lock(mutex);
    const std::string id = backup->getId();
    if (!backups.emplace(id, std::move(backup)).second) {
        throw std::invalid_argument("Could not insert a backup object for backup with ID " + id +
                                    " into the backup map.");
    }
}

/// Forgets one backup that has ended, if the map has reached the threshold. A backup with an active volume is
/// never forgotten, so the map can outgrow the threshold.
void BackupManager::purge() {
    const os::Lock lock(mutex);
    if (backups.size() < purgeThreshold) {
        return;
    }
    info::LogEntry(logger, info::level::info) << "BackupManager exceeds threshold of backups in memory...";
    const auto ended = std::find_if(backups.begin(), backups.end(),
                                    [](const auto& entry) { return !entry.second->isActive(); });
    if (ended == backups.end()) {
        return;
    }
    logger.log(info::level::info, "BackupManager purging backup %s from memory...", ended->first.c_str());
    backups.erase(ended);
}

} // namespace agent::core::backup
