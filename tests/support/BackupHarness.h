#pragma once

#include "core/backup/Backup.h"
#include "core/backup/SnapshotAttributes.h"
#include "support/FakeSnapshotControl.h"
#include "support/FaultyDataProvider.h"
#include "support/HolePunchOption.h"
#include "support/RecordingLogger.h"
#include "support/RecordingQuiesce.h"
#include "support/StagedVolumes.h"
#include "support/TestDatabase.h"

#include <memory>
#include <string>
#include <utility>

namespace agent::test {

/// A backup with a scripted snapshot control in place of the driver's.
class StagedBackup : public core::backup::Backup {
public:
    template <typename... Arguments>
    explicit StagedBackup(SnapshotScript& snapshots, info::Logger& logger, Arguments&&... arguments)
        : Backup(logger, std::forward<Arguments>(arguments)...), snapshots(snapshots), logger(logger) {}

protected:
    std::unique_ptr<core::backup::SnapshotSessionControl>
    makeSnapshotControl(info::ICowFileSize& /*cowFileSize*/) override {
        return std::make_unique<FakeSnapshotControl>(logger, snapshots);
    }

private:
    SnapshotScript& snapshots;
    info::Logger& logger;
};

/// Everything around a backup except its targets: volumes, scripts, snapshots, the database. Outlives the
/// backups that it makes.
/// Owns:    the database, the log and the fakes; the backups belong to the caller.
/// Threads: one.
/// Fails:   the constructor throws std::runtime_error if the database can't be made.
class BackupHarness {
public:
    using Attributes = std::shared_ptr<core::backup::IBackupAttributes>;

    std::unique_ptr<core::backup::Backup> make(Attributes attributes,
                                               std::unique_ptr<core::ICancelableOperation> operation,
                                               std::unique_ptr<core::IHeartbeat> heartbeat = nullptr,
                                               const std::string& id = "the-backup") {
        return std::make_unique<StagedBackup>(
            snapshots, log.logger, volumes, quiesce, std::move(attributes),
            std::make_shared<core::backup::SnapshotAttributes>(0, std::vector<std::string>{}, 0), store,
            std::move(operation), std::move(heartbeat), config, id);
    }

    RecordingLogger log;
    TestDatabase database;
    FaultyDataProvider store{database.provider}; ///< the data provider that backups get
    StagedVolumes volumes{log.logger};
    RecordingQuiesce quiesce;
    HolePunchOption config;
    SnapshotScript snapshots;
};

} // namespace agent::test
