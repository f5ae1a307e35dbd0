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

/// See IBackup. One run at a time in the process: a run waits, without limit, for the one before it to end,
/// so that a new backup never meets the snapshots of a cancelled one. A backup that is cancelled while it
/// waits ends as failed when its turn comes, and begins nothing. Another process that has snapshots is waited
/// for within limits, see SnapshotLock.
///
/// Logger, volume provider, quiesce scripts, data provider and configuration must outlive it.
class Backup : public IBackup {
public:
    /// A null heartbeat means that nobody has to watch the backup. An empty ID makes it generate its own.
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
    /// The control of the snapshots of one run, which `cowFileSize` outlives. For a machine whose snapshots
    /// are not those of the driver to override.
    virtual std::unique_ptr<SnapshotSessionControl> makeSnapshotControl(info::ICowFileSize& cowFileSize);

private:
    enum class Outcome { failed = 1, cancelled = 2, finished = 3 };
    using Volumes = SnapshotSessionControl::Volumes;
    /// Of one run.
    struct Snapshots {
        std::unique_ptr<SnapshotSessionControl> control;
        Volumes volumes;
        SnapshotLock lock;
    };

    static std::string nameOf(Outcome outcome);

    /// No exception leaves it. The session goes with it, and so the transports are closed before the
    /// snapshots are ended.
    Outcome runProtected(std::unique_ptr<BackupSession> session, Snapshots& snapshots);
    Outcome runCancelable(std::unique_ptr<BackupSession> session, Snapshots& snapshots);
    void runBackup(BackupSession& session, SnapshotSessionControl& control, Volumes& volumes,
                   ICancel& cancel);
    void runPostBackup(Snapshots& snapshots, Outcome outcome);
    void conclude(SnapshotSessionControl& control, const Volumes& volumes, bool success);

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
    std::atomic<bool> cancelAsked = false; // since this backup was made, whatever the operation says
};

} // namespace agent::core::backup
