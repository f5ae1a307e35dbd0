#pragma once

#include "common/config/IConfig.h"
#include "core/backup/BackupStatusHandler.h"
#include "core/backup/IBackup.h"
#include "core/backup/IBackupAttributes.h"
#include "core/backup/ISnapshotAttributes.h"
#include "core/backup/SnapshotLock.h"
#include "core/backup/SnapshotSessionControl.h"
#include "core/operation/ICancelableOperation.h"
#include "core/operation/IHeartbeat.h"
#include "core/script/IQuiesce.h"
#include "db/IDataProviderExtended.h"
#include "info/ICowFileSize.h"
#include "info/VolumeProvider.h"
#include "info/log/Logger.h"

#include <atomic>

namespace agent::core::backup {

/// See IBackup. The process runs one backup at a time: a run waits, without a timeout, for the run before it
/// to end, so that a new backup never finds the snapshots of a cancelled one. A backup that is cancelled
/// while it waits starts nothing and then ends as failed. If another process has snapshots, the run waits for
/// that process with a timeout; see SnapshotLock.
///
/// Logger, volume provider, quiesce scripts, data provider and configuration must outlive the object.
class Backup : public IBackup {
public:
    /// Without a heartbeat (null), the backup runs even if no appliance watches it. If `id` is empty, the
    /// backup generates its own.
    /// Throws std::invalid_argument for a null operation, for no volumes and for an empty volume UUID.
    Backup(info::Logger& logger, const info::VolumeProvider& volumeProvider, script::IQuiesce& quiesce,
           std::shared_ptr<IBackupAttributes> backupAttributes,
           std::shared_ptr<ISnapshotAttributes> snapshotAttributes, db::IDataProviderExtended& dataProvider,
           std::unique_ptr<ICancelableOperation> cancelableOperation, std::unique_ptr<IHeartbeat> heartbeat,
           const IConfig& config, std::string id);

    [[nodiscard]] std::string getId() const override;
    void getStatus(BackupStatus& out) const override;
    void ping() override;
    [[nodiscard]] bool isActive() const override;
    [[nodiscard]] bool isFinished() const override;
    void cancel() override;
    [[nodiscard]] bool isCancelled() const override;
    void run(std::unique_ptr<BackupSession> session) override;

protected:
    /// Creates the snapshot control of one run; `cowFileSize` outlives it. A subclass overrides this if its
    /// snapshots don't come from the driver.
    virtual std::unique_ptr<SnapshotSessionControl> makeSnapshotControl(info::ICowFileSize& cowFileSize);

private:
    enum class Outcome { failed = 1, cancelled = 2, finished = 3 };
    using Volumes = SnapshotSessionControl::Volumes;
    /// The snapshots of one run.
    struct Snapshots {
        std::unique_ptr<SnapshotSessionControl> control;
        Volumes volumes;
        SnapshotLock lock;
    };

    static std::string nameOf(Outcome outcome);

    /// Lets no exception escape. Destroys the session, so that the transports are closed before the snapshots
    /// end.
    Outcome runProtected(std::unique_ptr<BackupSession> session, Snapshots& snapshots);
    Outcome runCancelable(std::unique_ptr<BackupSession> session, Snapshots& snapshots);
    void runBackup(BackupSession& session, SnapshotSessionControl& control, Volumes& volumes,
                   ICancel& cancel);
    void runPostBackup(Snapshots& snapshots, Outcome outcome);
    void endSnapshots(SnapshotSessionControl& control, const Volumes& volumes, bool success);

    info::Logger& logger;
    const info::VolumeProvider& volumeProvider;
    script::IQuiesce& quiesce;
    std::shared_ptr<IBackupAttributes> backupAttributes;
    std::shared_ptr<ISnapshotAttributes> snapshotAttributes;
    db::IDataProviderExtended& dataProvider;
    std::unique_ptr<ICancelableOperation> cancelableOperation;
    std::unique_ptr<IHeartbeat> heartbeat;
    const IConfig& config;
    std::string id;
    BackupStatusHandler status;
    std::atomic<bool> cancelAsked = false; // never cleared, unlike the flag of the operation
};

} // namespace agent::core::backup
