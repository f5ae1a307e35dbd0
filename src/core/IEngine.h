#pragma once

#include "common/IService.h"

#include <memory>
#include <string>
#include <vector>

namespace agent::core {

namespace backup {
class BackupSession;
class IBackupAttributes;
class ISnapshotAttributes;
} // namespace backup

/// Accepts backup requests and runs one backup at a time.
/// Owns:    the threads of the running backup and of cancelled backups that have not ended yet.
/// Threads: safe from any, except that no request may overlap `start`, `stop` or `waitForBackup`.
/// Fails:   exception::bad_request for a request that can't be served now and for a cancel of an unknown ID;
///          `createBackup` also throws std::runtime_error if the driver isn't loaded. A failure of a backup
///          itself shows in its status only.
class IEngine : public IService {
public:
    /// Starts a backup and returns its ID at once. Cancels a running backup first, but doesn't wait for its
    /// end.
    virtual std::string createBackup(std::unique_ptr<backup::BackupSession> session,
                                     std::shared_ptr<backup::IBackupAttributes> backupAttributes,
                                     std::shared_ptr<backup::ISnapshotAttributes> snapshotAttributes) = 0;
    virtual void cancelBackup(const std::string& backupId) = 0;
    [[nodiscard]] virtual bool isBackupRunning() = 0;
    /// The names of the quiesce scripts of this machine.
    [[nodiscard]] virtual std::vector<std::string> getQuiesceScripts() = 0;
    /// Blocks until the running backup has ended, and throws what its thread threw.
    virtual void waitForBackup() = 0;
};

} // namespace agent::core
