#pragma once

#include <exception>
#include <memory>
#include <string>

namespace agent::core::backup {

class BackupSession;
class IBackup;

/// A thread for one backup at a time. The object is reused for the next backup when one has ended.
/// Owns:    the thread; destroying the object waits for the thread to end, without a timeout.
/// Threads: safe from any, except that no two calls of `start` or `wait` may overlap.
/// Fails:   `start` throws what creating a thread throws; a failure of the run is kept for `wait`.
class IBackupThread {
public:
    virtual ~IBackupThread() = default;
    virtual void start(std::shared_ptr<IBackup> backup, std::unique_ptr<BackupSession> session) = 0;
    /// Waits without a timeout for the run to end, forgets the backup, and returns what the run threw, or
    /// null.
    virtual std::exception_ptr wait() = 0;
    /// The current or last backup's ID; empty if there is none.
    [[nodiscard]] virtual std::string getBackupId() const = 0;
    [[nodiscard]] virtual bool isRunning() = 0;
};

} // namespace agent::core::backup
