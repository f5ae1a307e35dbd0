#include "core/backup/phase/PhaseFactory.h"

#include "core/backup/RemoteTargetValidator.h"
#include "core/backup/phase/CloseBackupSession.h"
#include "core/backup/phase/OpenBackupSession.h"
#include "core/backup/phase/ValidateRemoteTargets.h"

#include <utility>

namespace agent::core::backup::phase {

namespace {

/// The phases of one run. Without a copy of a volume no checksum is ever registered, so that closing the
/// session fails the backup: what was not copied is never reported as finished.
class BackupPhases : public IBackupPhases {
public:
    BackupPhases(info::Logger& logger, db::IDataProvider& dataProvider,
                 const PopulateVolumes::VolumeLookup& volumeLookup,
                 std::shared_ptr<IBackupAttributes> attributes)
        : logger(logger),
          dataProvider(dataProvider),
          volumeLookup(volumeLookup),
          attributes(std::move(attributes)),
          validator(logger, dataProvider) {}

    Phases populate() override {
        Phases phases;
        phases.push_back(
            std::make_unique<PopulateVolumes>(logger, volumeLookup, attributes->getVolumeUUIDs(), volumes));
        return phases;
    }

    Phases transfer(BackupSession& session, ICancel& /*cancel*/) override {
        Phases phases;
        phases.push_back(std::make_unique<OpenBackupSession>(session));
        phases.push_back(std::make_unique<ValidateRemoteTargets>(session, *attributes, validator));
        phases.push_back(std::make_unique<CloseBackupSession>(session, dataProvider));
        return phases;
    }

    Phases conclude(bool /*success*/) override { return {}; }

private:
    info::Logger& logger;
    db::IDataProvider& dataProvider;
    const PopulateVolumes::VolumeLookup& volumeLookup;
    std::shared_ptr<IBackupAttributes> attributes;
    RemoteTargetValidator validator;
    PopulateVolumes::Volumes volumes;
};

} // namespace

PhaseFactory::PhaseFactory(info::Logger& logger, db::IDataProvider& dataProvider,
                           PopulateVolumes::VolumeLookup volumeLookup)
    : logger(logger), dataProvider(dataProvider), volumeLookup(std::move(volumeLookup)) {}

std::unique_ptr<IBackupPhases>
PhaseFactory::create(std::shared_ptr<IBackupAttributes> backupAttributes,
                     std::shared_ptr<ISnapshotAttributes> /*snapshotAttributes*/,
                     IBackupStatusHandler& /*status*/) {
    return std::make_unique<BackupPhases>(logger, dataProvider, volumeLookup, std::move(backupAttributes));
}

} // namespace agent::core::backup::phase
