#pragma once

#include "core/backup/IBackupThread.h"
#include "info/log/Logger.h"
#include "os/Mutex.h"

#include <future>

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
    mutable os::Mutex mutex;
    std::exception_ptr failure GUARDED_BY(mutex);
    std::shared_ptr<IBackup> backup GUARDED_BY(mutex); // the thread itself holds its own shared_ptr
    // A copy is waited for without the mutex. Destroying the last copy joins the thread, so this is declared
    // last.
    std::shared_future<void> result GUARDED_BY(mutex);
};

} // namespace agent::core::backup
