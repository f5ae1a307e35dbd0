#include "core/backup/phase/PhaseFactory.h"

#include "core/backup/RemoteTargetValidator.h"
#include "core/backup/phase/CloseBackupSession.h"
#include "core/backup/phase/CopyVolume.h"
#include "core/backup/phase/OpenBackupSession.h"
#include "core/backup/phase/PostBackupRecord.h"
#include "core/backup/phase/StartSnapshotting.h"
#include "core/backup/phase/TransitionToIncremental.h"
#include "core/backup/phase/ValidateLocalTargets.h"
#include "core/backup/phase/ValidateRemoteTargets.h"

#include <utility>

namespace agent::core::backup::phase {

namespace {

/// The phases of one run, and what they hand to each other.
class BackupPhases : public IBackupPhases {
public:
    BackupPhases(const PhaseFactory::Environment& environment, std::shared_ptr<IBackupAttributes> attributes,
                 std::shared_ptr<ISnapshotAttributes> snapshotAttributes, IBackupStatusHandler& status)
        : environment(environment),
          attributes(std::move(attributes)),
          snapshotAttributes(std::move(snapshotAttributes)),
          status(status),
          snapshotControl(environment.makeSnapshotControl()),
          validator(environment.logger, environment.dataProvider) {}

    Phases populate() override {
        Phases phases;
        phases.push_back(std::make_unique<PopulateVolumes>(environment.logger, environment.volumeLookup,
                                                           attributes->getVolumeUUIDs(), volumes));
        return phases;
    }

    Phases transfer(BackupSession& session, ICancel& cancel) override {
        Phases phases;
        phases.push_back(std::make_unique<OpenBackupSession>(session));
        phases.push_back(std::make_unique<ValidateLocalTargets>(environment.logger, volumes, *attributes,
                                                                environment.dataProvider));
        phases.push_back(std::make_unique<ValidateRemoteTargets>(session, *attributes, validator));
        phases.push_back(std::make_unique<StartSnapshotting>(
            environment.logger, *snapshotControl, snapshotInfo, volumes, *attributes, *snapshotAttributes,
            environment.quiesce, status));
        for (const auto& volume : volumes) {
            phases.push_back(std::make_unique<CopyVolume>(environment.logger, session, snapshotInfo, volume,
                                                          *attributes, status, environment.dataProvider,
                                                          cancel, environment.config));
        }
        phases.push_back(std::make_unique<CloseBackupSession>(session, environment.dataProvider));
        return phases;
    }

    Phases conclude(bool success) override {
        Phases phases;
        phases.push_back(
            std::make_unique<TransitionToIncremental>(*snapshotControl, snapshotInfo, volumes, success));
        phases.push_back(std::make_unique<PostBackupRecord>(environment.logger, environment.dataProvider,
                                                            volumes, success, snapshotInfo));
        return phases;
    }

private:
    const PhaseFactory::Environment& environment;
    const std::shared_ptr<IBackupAttributes> attributes;
    const std::shared_ptr<ISnapshotAttributes> snapshotAttributes;
    IBackupStatusHandler& status;
    const std::unique_ptr<SnapshotSessionControl> snapshotControl;
    RemoteTargetValidator validator;
    PopulateVolumes::Volumes volumes;
    std::shared_ptr<ISnapshotInfo> snapshotInfo; ///< null until there are snapshots
};

} // namespace

PhaseFactory::PhaseFactory(Environment environment) : environment(std::move(environment)) {}

std::unique_ptr<IBackupPhases> PhaseFactory::create(std::shared_ptr<IBackupAttributes> backupAttributes,
                                                    std::shared_ptr<ISnapshotAttributes> snapshotAttributes,
                                                    IBackupStatusHandler& status) {
    return std::make_unique<BackupPhases>(environment, std::move(backupAttributes),
                                          std::move(snapshotAttributes), status);
}

} // namespace agent::core::backup::phase
