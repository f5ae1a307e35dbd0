#include "core/backup/BackupThread.h"

#include "common/TerminationSignals.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupSignalHandlers.h"
#include "core/backup/IBackup.h"
#include "core/backup/SystemSleepLock.h"

#include <chrono>
#include <optional>
#include <stdexcept>
#include <utility>

namespace agent::core::backup {

BackupThread::BackupThread(info::Logger& logger) : logger(logger) {}

void BackupThread::start(std::shared_ptr<IBackup> newBackup, std::unique_ptr<BackupSession> session) {
    {
        const os::Lock lock(mutex);
        failure = nullptr;
        backup = newBackup;
    }
    std::shared_future<void> launched;
    try {
        const TerminationSignalsBlocked signalsBlocked;
        launched = std::async(std::launch::async,
                              [this, running = std::move(newBackup), given = std::move(session)]() mutable {
                                  run(running, std::move(given));
                              });
    } catch (const std::exception& error) {
        logger.log(info::level::error, info::reason("backup-failed"),
                   "Exception occurred while trying to spawn backup thread: %s", error.what());
        throw;
    }
    {
        const os::Lock lock(mutex);
        std::swap(result, launched);
    }
    // `launched` now holds the future of the earlier run. Its destructor waits for that run, in case it has
    // cancelled itself but not ended yet.
}

std::exception_ptr BackupThread::wait() {
    std::shared_future<void> awaited;
    {
        const os::Lock lock(mutex);
        awaited = result;
    }
    if (awaited.valid()) {
        awaited.wait();
    }
    const os::Lock lock(mutex);
    result = {};
    backup = nullptr;
    return failure;
}

std::string BackupThread::getBackupId() const {
    const os::Lock lock(mutex);
    return backup ? backup->getId() : "";
}

bool BackupThread::isRunning() {
    const os::Lock lock(mutex);
    if (!result.valid()) {
        return false;
    }
    if (result.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        return true;
    }
    result = {};
    return false;
}

void BackupThread::run(const std::shared_ptr<IBackup>& running, std::unique_ptr<BackupSession> session) {
    std::optional<BackupSignalHandlers> handlers; // outside the try block: still in force during keepFailure
    try {
        if (!running) {
            throw std::invalid_argument("Invalid backup pointer given to backup thread!");
        }
        info::LogEntry(logger, info::level::info) << "Backup run beginning...";
        handlers.emplace(logger, *running);
        const SystemSleepLock sleepLock(logger);
        running->run(std::move(session));
        info::LogEntry(logger, info::level::info) << "Backup run finished";
    } catch (const std::exception& error) {
        logger.log(info::level::error, info::reasonOf(error, info::reason("backup-failed")),
                   "Exception occurred during backup run: %s", error.what());
        keepFailure();
    } catch (...) {
        info::LogEntry(logger, info::level::error, info::reason("backup-failed"))
            << "Unknown exception occurred during backup run";
        keepFailure();
    }
}

void BackupThread::keepFailure() {
    const os::Lock lock(mutex);
    failure = std::current_exception();
}

} // namespace agent::core::backup
