#include "core/backup/Backup.h"

#include "common/Exceptions.h"
#include "common/UUIDGenerator.h"
#include "core/backup/BackupSession.h"
#include "core/backup/PhaseRunner.h"
#include "core/backup/RemoteTargetValidator.h"
#include "core/backup/RunResultLog.h"
#include "core/backup/phase/CloseBackupSession.h"
#include "core/backup/phase/CopyVolume.h"
#include "core/backup/phase/OpenBackupSession.h"
#include "core/backup/phase/PopulateVolumes.h"
#include "core/backup/phase/PostBackupRecord.h"
#include "core/backup/phase/StartSnapshotting.h"
#include "core/backup/phase/TransitionToIncremental.h"
#include "core/backup/phase/ValidateLocalTargets.h"
#include "core/backup/phase/ValidateRemoteTargets.h"
#include "core/operation/NeverCancel.h"
#include "info/CowFileSize.h"
#include "os/Mutex.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace agent::core::backup {

namespace {

/// Held during each whole run. The mutex belongs to the process, because all backups share the machine's
/// volumes and its one snapshot driver, whichever engine's thread they run on.
os::Mutex& runMutex() {
    static os::Mutex mutex;
    return mutex;
}

} // namespace

Backup::Backup(info::Logger& logger, const info::VolumeProvider& volumeProvider, script::IQuiesce& quiesce,
               std::shared_ptr<IBackupAttributes> backupAttributes,
               std::shared_ptr<ISnapshotAttributes> snapshotAttributes,
               db::IDataProviderExtended& dataProvider,
               std::unique_ptr<ICancelableOperation> cancelableOperation,
               std::unique_ptr<IHeartbeat> heartbeat, const IConfig& config, std::string id)
    : logger(logger),
      volumeProvider(volumeProvider),
      quiesce(quiesce),
      backupAttributes(std::move(backupAttributes)),
      snapshotAttributes(std::move(snapshotAttributes)),
      dataProvider(dataProvider),
      cancelableOperation(std::move(cancelableOperation)),
      heartbeat(std::move(heartbeat)),
      config(config),
      id(std::move(id)),
      status(logger, this->backupAttributes->getVolumeUUIDs()) {
    if (!this->cancelableOperation) {
        throw std::invalid_argument("Empty CancelableOperation supplied.");
    }
    const std::vector<std::string> uuids = this->backupAttributes->getVolumeUUIDs();
    if (uuids.empty()) {
        throw std::invalid_argument("Empty volume UUID list supplied.");
    }
    if (std::find(uuids.begin(), uuids.end(), "") != uuids.end()) {
        throw std::invalid_argument("Invalid volume UUID supplied.");
    }
    if (this->id.empty()) {
        this->id = UUIDGenerator().generate();
        logger.log(info::level::info, "Generated new backup ID: %s", this->id.c_str());
    }
}

std::string Backup::getId() const {
    return id;
}

void Backup::getStatus(BackupStatus& out) const {
    status.getStatus(out);
}

void Backup::ping() {
    if (heartbeat) {
        heartbeat->ping();
    }
}

bool Backup::isActive() const {
    return status.isActive();
}

bool Backup::isFinished() const {
    return status.isFinished();
}

void Backup::cancel() {
    logger.log(info::level::info, "Asking backup %s to cancel...", id.c_str());
    cancelAsked = true; // before the operation's own flag, which `run` may be resetting at this moment
    cancelableOperation->cancel();
}

bool Backup::isCancelled() const {
    return cancelableOperation->isCancelled();
}

void Backup::run(std::unique_ptr<BackupSession> session) {
    if (!session) {
        throw std::invalid_argument("Invalid session pointer given to backup run!");
    }
    const os::Lock lock(runMutex());
    const RunResultLog resultLog(logger, id, *backupAttributes);
    info::CowFileSize cowFileSize(config);
    Snapshots snapshots{makeSnapshotControl(cowFileSize), {}, SnapshotLock()};
    const Outcome outcome = runProtected(std::move(session), snapshots);
    const auto writeRecord = [&] { resultLog.write(nameOf(outcome), status, snapshots.volumes); };
    try {
        runPostBackup(snapshots, outcome);
    } catch (...) {
        info::LogEntry(logger, info::level::error, info::reason("clean-up-failed"))
            << "Failed to run post backup!";
        writeRecord();
        throw;
    }
    writeRecord();
}

std::string Backup::nameOf(Outcome outcome) {
    if (outcome == Outcome::cancelled) {
        return "cancelled";
    }
    return outcome == Outcome::finished ? "success" : "failed";
}

std::unique_ptr<SnapshotSessionControl> Backup::makeSnapshotControl(info::ICowFileSize& cowFileSize) {
    return std::make_unique<SnapshotSessionControl>(logger, cowFileSize);
}

Backup::Outcome Backup::runProtected(std::unique_ptr<BackupSession> session, Snapshots& snapshots) {
    try {
        return runCancelable(std::move(session), snapshots);
    } catch (const exception::transport_connection_error& error) {
        logger.log(info::level::error, info::reasonOf(error, info::reason("target-lost")),
                   "Transport related error occurred during backup run: %s", error.what());
        status.setConnectionError();
    } catch (const std::exception& error) {
        logger.log(info::level::error, info::reasonOf(error, info::reason("backup-failed")),
                   "Exception caught during backup run: %s", error.what());
    } catch (...) {
        info::LogEntry(logger, info::level::error, info::reason("backup-failed"))
            << "Non-standard exception caught during backup run!";
    }
    return Outcome::failed;
}

Backup::Outcome Backup::runCancelable(std::unique_ptr<BackupSession> session, Snapshots& snapshots) {
    cancelableOperation->reset();
    if (cancelAsked) { // cancelled while this backup waited for runMutex: it must not begin
        cancelableOperation->cancel();
    }
    if (heartbeat) {
        heartbeat->reset(); // missing pings don't count while the backup waits for its run
        heartbeat->setCallback([this] {
            info::LogEntry(logger, info::level::error, info::reason("appliance-silent"))
                << "Backup cancelling due to lost ordak ping";
            cancelableOperation->cancel();
        });
    }
    const bool completed = cancelableOperation->run([&](ICancel& cancel) {
        snapshots.lock.acquire(logger, cancel);
        runBackup(*session, *snapshots.control, snapshots.volumes, cancel);
    });
    if (heartbeat) {
        heartbeat->setCallback({});
    }
    return completed ? Outcome::finished : Outcome::cancelled;
}

void Backup::runBackup(BackupSession& session, SnapshotSessionControl& control, Volumes& volumes,
                       ICancel& cancel) {
    std::shared_ptr<ISnapshotInfo> snapshotInfo; // null until there are snapshots
    RemoteTargetValidator validator(logger, dataProvider);
    Phases populate;
    populate.push_back(std::make_unique<phase::PopulateVolumes>(logger, volumeProvider,
                                                                backupAttributes->getVolumeUUIDs(), volumes));
    Phases transfer;
    transfer.push_back(std::make_unique<phase::OpenBackupSession>(session));
    transfer.push_back(
        std::make_unique<phase::ValidateLocalTargets>(logger, volumes, *backupAttributes, dataProvider));
    transfer.push_back(std::make_unique<phase::ValidateRemoteTargets>(session, *backupAttributes, validator));
    transfer.push_back(std::make_unique<phase::StartSnapshotting>(
        logger, control, snapshotInfo, volumes, *backupAttributes, *snapshotAttributes, quiesce, status));
    info::LogEntry(logger, info::level::info) << "Beginning running backup phases...";
    PhaseRunner(logger, populate).run(cancel);
    for (const auto& volume : volumes) { // filled by the `populate` phase
        transfer.push_back(std::make_unique<phase::CopyVolume>(
            logger, session, snapshotInfo, volume, *backupAttributes, status, dataProvider, cancel, config));
    }
    transfer.push_back(std::make_unique<phase::CloseBackupSession>(session, dataProvider));
    PhaseRunner(logger, transfer).run(cancel);
    info::LogEntry(logger, info::level::info) << "Finished running backup phases...";
}

void Backup::runPostBackup(Snapshots& snapshots, Outcome outcome) {
    const bool success = outcome == Outcome::finished;
    if (snapshots.lock.tryAcquire() == SnapshotLock::State::others) {
        info::LogEntry(logger, info::level::info)
            << "The snapshots there are belong to another program, none to this backup.";
    } else {
        endSnapshots(*snapshots.control, snapshots.volumes, success);
    }
    if (success) {
        return;
    }
    logger.log(info::level::info, "Backup %s FAILED!", id.c_str());
    info::LogEntry(logger, info::level::info) << "Backup failed, setting all volumes to failed.";
    status.setAllVolumesFailed();
}

void Backup::endSnapshots(SnapshotSessionControl& control, const Volumes& volumes, bool success) {
    std::shared_ptr<ISnapshotInfo> snapshotInfo; // the state after the snapshots have ended
    Phases phases;
    phases.push_back(
        std::make_unique<phase::TransitionToIncremental>(control, snapshotInfo, volumes, success));
    phases.push_back(
        std::make_unique<phase::PostBackupRecord>(logger, dataProvider, volumes, success, snapshotInfo));
    NeverCancel never;
    PhaseRunner(logger, phases).run(never);
}

} // namespace agent::core::backup
