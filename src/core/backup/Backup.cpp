#include "core/backup/Backup.h"

#include "common/Exceptions.h"
#include "common/UUIDGenerator.h"
#include "core/backup/BackupSession.h"
#include "core/backup/PhaseRunner.h"
#include "core/operation/NeverCancel.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace agent::core::backup {

namespace {

/// Held for the whole of a run. Backups share the machine's volumes and its one snapshot driver, and belong
/// to different engines' threads, so this is the process's and not any object's.
std::mutex& runMutex() {
    static std::mutex mutex;
    return mutex;
}

} // namespace

Backup::Backup(info::Logger& logger, IPhaseFactory& phaseFactory,
               std::shared_ptr<IBackupAttributes> backupAttributes,
               std::shared_ptr<ISnapshotAttributes> snapshotAttributes,
               std::unique_ptr<ICancelableOperation> cancelableOperation,
               std::unique_ptr<IHeartbeat> heartbeat, std::string id)
    : logger(logger),
      phaseFactory(phaseFactory),
      backupAttributes(std::move(backupAttributes)),
      snapshotAttributes(std::move(snapshotAttributes)),
      cancelableOperation(std::move(cancelableOperation)),
      heartbeat(std::move(heartbeat)),
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
    cancelAsked = true; // before the operation's own flag, which the run may be resetting right now
    cancelableOperation->cancel();
}

bool Backup::isCancelled() const {
    return cancelableOperation->isCancelled();
}

void Backup::run(std::unique_ptr<BackupSession> session) {
    if (!session) {
        throw std::invalid_argument("Invalid session pointer given to backup run!");
    }
    const std::lock_guard lock(runMutex());
    const std::unique_ptr<IBackupPhases> phases =
        phaseFactory.create(backupAttributes, snapshotAttributes, status);
    // The session goes with the protected run, which closes the transports before the snapshots are ended.
    const Outcome outcome = runProtected(*phases, std::move(session));
    try {
        runPostBackup(*phases, outcome);
    } catch (...) {
        info::LogEntry(logger, info::level::error) << "Failed to run post backup!";
        throw;
    }
}

Backup::Outcome Backup::runProtected(IBackupPhases& phases, std::unique_ptr<BackupSession> session) {
    try {
        return runCancelable(phases, std::move(session));
    } catch (const exception::transport_connection_error& error) {
        logger.log(info::level::error, "Transport related error occurred during backup run: %s",
                   error.what());
        status.setConnectionError();
    } catch (const std::exception& error) {
        logger.log(info::level::error, "Exception caught during backup run: %s", error.what());
    } catch (...) {
        info::LogEntry(logger, info::level::error) << "Non-standard exception caught during backup run!";
    }
    return Outcome::failed;
}

Backup::Outcome Backup::runCancelable(IBackupPhases& phases, std::unique_ptr<BackupSession> session) {
    cancelableOperation->reset();
    if (cancelAsked) { // while this backup waited for its turn: it must not begin
        cancelableOperation->cancel();
    }
    if (heartbeat) {
        heartbeat->reset(); // the time before the run is nobody's silence
        heartbeat->setCallback([this] {
            info::LogEntry(logger, info::level::error) << "Backup cancelling due to lost ordak ping";
            cancelableOperation->cancel();
        });
    }
    const bool completed =
        cancelableOperation->run([&](ICancel& cancel) { runBackup(phases, *session, cancel); });
    if (heartbeat) {
        heartbeat->setCallback({});
    }
    return completed ? Outcome::finished : Outcome::cancelled;
}

void Backup::runBackup(IBackupPhases& phases, BackupSession& session, ICancel& cancel) {
    const Phases populate = phases.populate();
    info::LogEntry(logger, info::level::info) << "Beginning running backup phases...";
    PhaseRunner(logger, populate).run(cancel);
    const Phases transfer = phases.transfer(session, cancel);
    PhaseRunner(logger, transfer).run(cancel);
    info::LogEntry(logger, info::level::info) << "Finished running backup phases...";
}

void Backup::runPostBackup(IBackupPhases& phases, Outcome outcome) {
    NeverCancel never;
    const Phases conclude = phases.conclude(outcome == Outcome::finished);
    PhaseRunner(logger, conclude).run(never);
    if (outcome == Outcome::finished) {
        return;
    }
    logger.log(info::level::info, "Backup %s FAILED!", id.c_str());
    info::LogEntry(logger, info::level::info) << "Backup failed, setting all volumes to failed.";
    status.setAllVolumesFailed();
}

} // namespace agent::core::backup
