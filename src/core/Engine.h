#pragma once

#include "core/IEngine.h"
#include "core/backup/IBackup.h"
#include "core/backup/IBackupManager.h"
#include "core/backup/IBackupThread.h"
#include "core/script/IQuiesce.h"
#include "info/IDriverInfoProvider.h"
#include "info/log/Logger.h"
#include "os/Mutex.h"

#include <functional>
#include <mutex>

namespace agent::core {

/// See IEngine.
///
/// There are two locks, taken in this order and before the backup manager's mutex. A request holds
/// `requestMutex` while it builds its backup; another request waits five seconds for it and is then refused.
/// `slotMutex` guards the backup threads and is only held for the few instructions that look at or move them,
/// so that a cancel never waits for a request. `stop` and `waitForBackup` hold neither lock while they wait
/// for a thread.
class Engine : public IEngine {
public:
    using ThreadFactory = std::function<std::unique_ptr<backup::IBackupThread>()>;
    using BackupFactory = std::function<std::unique_ptr<backup::IBackup>(
        std::shared_ptr<backup::IBackupAttributes>, std::shared_ptr<backup::ISnapshotAttributes>)>;

    Engine(info::Logger& logger, const IDriverInfoProvider& driverInfo, script::IQuiesce& quiesce,
           backup::IBackupManager& backupManager, ThreadFactory threadFactory, BackupFactory backupFactory);
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;
    ~Engine() override;

    void start() override;
    void stop() override;
    std::string createBackup(std::unique_ptr<backup::BackupSession> session,
                             std::shared_ptr<backup::IBackupAttributes> backupAttributes,
                             std::shared_ptr<backup::ISnapshotAttributes> snapshotAttributes) override;
    void cancelBackup(const std::string& backupId) override;
    [[nodiscard]] bool isBackupRunning() override;
    [[nodiscard]] std::vector<std::string> getQuiesceScripts() override;
    void waitForBackup() override;

private:
    [[nodiscard]] std::unique_ptr<backup::IBackupThread> makeThread() const;
    [[nodiscard]] backup::IBackupThread& currentThread();
    void freeBackupSlot();
    void reapCancelledThreads() REQUIRES(slotMutex);
    void cancelInSlot(const std::string& backupId) REQUIRES(slotMutex);

    info::Logger& logger;
    const IDriverInfoProvider& driverInfo;
    script::IQuiesce& quiesce;
    backup::IBackupManager& backupManager;
    const ThreadFactory threadFactory;
    const BackupFactory backupFactory;

    std::timed_mutex requestMutex; // one createBackup at a time
    os::Mutex slotMutex;
    // The slot of the running backup, never null. Declared before the cancelled threads, so that the
    // destructor waits for those first.
    std::unique_ptr<backup::IBackupThread> backupThread GUARDED_BY(slotMutex);
    std::vector<std::unique_ptr<backup::IBackupThread>> cancellingThreads GUARDED_BY(slotMutex);
};

} // namespace agent::core
