#pragma once

#include "core/backup/BackupStatusHandler.h"
#include "core/backup/IBackup.h"
#include "core/backup/IPhaseFactory.h"
#include "core/operation/ICancelableOperation.h"
#include "core/operation/IHeartbeat.h"
#include "info/log/Logger.h"

#include <atomic>

namespace agent::core::backup {

/// See IBackup. One run at a time in the process: a run waits, without limit, for the one before it to end,
/// so that a new backup never meets the snapshots of a cancelled one. A backup that is cancelled while it
/// waits ends as failed when its turn comes, and begins nothing.
class Backup : public IBackup {
public:
    /// A null heartbeat means that nobody has to watch the backup. An empty ID makes it generate its own.
    /// Throws std::invalid_argument for a null operation, for no volumes and for an empty volume UUID.
    Backup(info::Logger& logger, IPhaseFactory& phaseFactory,
           std::shared_ptr<IBackupAttributes> backupAttributes,
           std::shared_ptr<ISnapshotAttributes> snapshotAttributes,
           std::unique_ptr<ICancelableOperation> cancelableOperation, std::unique_ptr<IHeartbeat> heartbeat,
           std::string id);

    [[nodiscard]] std::string getId() const override;
    void getStatus(BackupStatus& out) const override;
    void ping() override;
    [[nodiscard]] bool isActive() const override;
    [[nodiscard]] bool isFinished() const override;
    void cancel() override;
    [[nodiscard]] bool isCancelled() const override;
    void run(std::unique_ptr<BackupSession> session) override;

private:
    enum class Outcome { failed = 1, cancelled = 2, finished = 3 };

    Outcome runProtected(IBackupPhases& phases, std::unique_ptr<BackupSession> session);
    Outcome runCancelable(IBackupPhases& phases, std::unique_ptr<BackupSession> session);
    void runBackup(IBackupPhases& phases, BackupSession& session, ICancel& cancel);
    void runPostBackup(IBackupPhases& phases, Outcome outcome);

    info::Logger& logger;
    IPhaseFactory& phaseFactory;
    std::shared_ptr<IBackupAttributes> backupAttributes;
    std::shared_ptr<ISnapshotAttributes> snapshotAttributes;
    std::unique_ptr<ICancelableOperation> cancelableOperation;
    std::atomic<bool> cancelAsked = false; // since this backup was made, whatever the operation says
    std::unique_ptr<IHeartbeat> heartbeat;
    std::string id;
    BackupStatusHandler status;
};

} // namespace agent::core::backup
