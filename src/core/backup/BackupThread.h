#pragma once

#include "core/backup/IBackupThread.h"
#include "info/log/Logger.h"

#include <future>
#include <mutex>

namespace agent::core::backup {

/// See IBackupThread. The termination signals are blocked on the thread: a shutdown waits for this thread, so
/// it must never run on it.
class BackupThread : public IBackupThread {
public:
    explicit BackupThread(info::Logger& logger);

    void start(std::shared_ptr<IBackup> newBackup, std::unique_ptr<BackupSession> session) override;
    std::exception_ptr wait() override;
    [[nodiscard]] std::string getBackupId() const override;
    [[nodiscard]] bool isRunning() override;

private:
    void run(const std::shared_ptr<IBackup>& running, std::unique_ptr<BackupSession> session);
    void keepFailure();

    info::Logger& logger;
    mutable std::mutex mutex;
    std::exception_ptr failure;      // guarded by mutex
    std::shared_ptr<IBackup> backup; // guarded by mutex; the thread itself holds its own shared_ptr
    // Guarded by mutex, but waited for without it. Destroying the last copy joins the thread, so this is
    // declared last.
    std::shared_future<void> result;
};

} // namespace agent::core::backup
