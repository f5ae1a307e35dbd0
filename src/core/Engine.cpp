#include "core/Engine.h"

#include "common/BaseDirectories.h"
#include "common/Exceptions.h"
#include "core/backup/BackupSession.h"

#include <chrono>
#include <stdexcept>
#include <utility>

namespace agent::core {

namespace {

constexpr std::chrono::seconds requestTimeout(5);
constexpr std::size_t tooManyCancellingThreads = 6;

} // namespace

Engine::Engine(info::Logger& logger, const IDriverInfoProvider& driverInfo, script::IQuiesce& quiesce,
               backup::IBackupManager& backupManager, ThreadFactory threadFactory,
               BackupFactory backupFactory)
    : logger(logger),
      driverInfo(driverInfo),
      quiesce(quiesce),
      backupManager(backupManager),
      threadFactory(std::move(threadFactory)),
      backupFactory(std::move(backupFactory)),
      backupThread(makeThread()) {
    info::LogEntry(logger, info::level::debug) << "Core engine created";
}

Engine::~Engine() {
    info::LogEntry(logger, info::level::debug) << "Core engine destroyed";
}

void Engine::start() {
    info::LogEntry(logger, info::level::debug) << "Core engine starting";
    info::LogEntry(logger, info::level::info) << "Core engine started";
}

void Engine::stop() {
    info::LogEntry(logger, info::level::debug) << "Core engine stopping";
    backupManager.cancelAllBackups();
    if (isBackupRunning()) {
        info::LogEntry(logger, info::level::info) << "Waiting for backup thread to exit...";
    }
    currentThread().wait();
    std::vector<std::unique_ptr<backup::IBackupThread>> remaining;
    {
        const os::Lock lock(slotMutex);
        reapCancelledThreads();
        remaining.swap(cancellingThreads);
    }
    if (!remaining.empty()) {
        info::LogEntry(logger, info::level::info) << "Waiting for cancelling backups to exit...";
    }
    remaining.clear(); // destroying a thread waits for its end
    info::LogEntry(logger, info::level::info) << "Core engine stopped";
}

std::string Engine::createBackup(std::unique_ptr<backup::BackupSession> session,
                                 std::shared_ptr<backup::IBackupAttributes> backupAttributes,
                                 std::shared_ptr<backup::ISnapshotAttributes> snapshotAttributes) {
    const std::unique_lock request(requestMutex, requestTimeout);
    if (!request) {
        throw exception::bad_request("Core engine can't do a backup right now, one is already being started");
    }
    if (!session) {
        throw std::invalid_argument("Cannot start a backup with null backup session object.");
    }
    freeBackupSlot();
    info::LogEntry(logger, info::level::info) << "Core engine was asked to create a backup";
    info::LogEntry(logger, info::level::info) << "Driver version: " << driverInfo.getDriverVersion();
    info::LogEntry(logger, info::level::info) << "Validating backup information...";
    const std::shared_ptr<backup::IBackup> backup =
        backupFactory(std::move(backupAttributes), std::move(snapshotAttributes));
    backupManager.addBackup(backup);
    // slotMutex isn't held here: `start` may wait for a backup that has cancelled itself and is still ending.
    // The thread object stays alive meanwhile, because only another request could remove it.
    currentThread().start(backup, std::move(session));
    return backup->getId();
}

void Engine::cancelBackup(const std::string& backupId) {
    const os::Lock lock(slotMutex);
    cancelInSlot(backupId);
}

bool Engine::isBackupRunning() {
    const os::Lock lock(slotMutex);
    return backupThread->isRunning();
}

std::vector<std::string> Engine::getQuiesceScripts() {
    const std::set<std::string> scripts = quiesce.getScripts(dir::base() / "pps");
    return {scripts.begin(), scripts.end()};
}

void Engine::waitForBackup() {
    const std::exception_ptr failure = currentThread().wait();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

std::unique_ptr<backup::IBackupThread> Engine::makeThread() const {
    std::unique_ptr<backup::IBackupThread> thread = threadFactory();
    if (!thread) {
        throw std::runtime_error("Core engine could not create backup thread");
    }
    return thread;
}

backup::IBackupThread& Engine::currentThread() {
    const os::Lock lock(slotMutex);
    return *backupThread;
}

/// Frees the running slot for a new backup, or refuses the request.
void Engine::freeBackupSlot() {
    const os::Lock lock(slotMutex);
    reapCancelledThreads();
    if (cancellingThreads.size() >= tooManyCancellingThreads) {
        throw exception::bad_request("Too many backup requests while waiting for cancelling backup");
    }
    if (!backupThread->isRunning()) {
        return;
    }
    info::LogEntry(logger, info::level::info) << "Backup request: Cancelling already running backup first.";
    try {
        cancelInSlot(backupThread->getBackupId());
    } catch (const exception::bad_request& error) {
        logger.log(info::level::debug, "Failed to cancel a backup: %s", error.what());
    }
}

/// Destroys the threads that have ended. The caller holds slotMutex.
void Engine::reapCancelledThreads() {
    std::erase_if(cancellingThreads, [](const auto& thread) { return !thread->isRunning(); });
}

/// Cancels the backup. If it is the running one, its thread moves to the cancelled threads, where it may take
/// its time to end, and a new thread takes the slot. The caller holds slotMutex.
void Engine::cancelInSlot(const std::string& backupId) {
    backupManager.cancelBackup(backupId);
    if (backupThread->getBackupId() != backupId) {
        return;
    }
    std::unique_ptr<backup::IBackupThread> next = makeThread(); // first, so that the slot is never left empty
    cancellingThreads.push_back(std::exchange(backupThread, std::move(next)));
}

} // namespace agent::core
