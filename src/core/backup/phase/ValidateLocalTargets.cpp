#include "core/backup/phase/ValidateLocalTargets.h"

#include "core/backup/BackupType.h"
#include "info/BackupableVolume.h"

#include <stdexcept>

namespace agent::core::backup::phase {

ValidateLocalTargets::ValidateLocalTargets(info::Logger& logger, const Volumes& volumes,
                                           IBackupAttributes& attributes, db::IDataProvider& dataProvider)
    : logger(logger), volumes(volumes), attributes(attributes), dataProvider(dataProvider) {}

void ValidateLocalTargets::execute() {
    if (volumes.empty()) {
        info::LogEntry(logger, info::level::error) << "Backupable volume list should not be empty!";
        throw std::runtime_error("Backupable volume list should not be empty!");
    }
    for (const auto& volume : volumes) {
        requireUsable(*volume);
        settleType(*volume);
    }
}

void ValidateLocalTargets::requireUsable(const info::BackupableVolume& volume) {
    if (!volume.exists()) {
        info::LogEntry(logger, info::level::error, info::reason("volume-inaccessible"))
            << "Volume " << volume.getDisplayName() << " is inaccessible!";
        throw info::WithReason<std::runtime_error>(info::reason("volume-inaccessible"),
                                                   "Cannot backup an inaccessible device!");
    }
    if (!volume.isMounted()) {
        info::LogEntry(logger, info::level::error, info::reason("volume-not-mounted"))
            << "Volume " << volume.getDisplayName() << " is NOT mounted";
        throw info::WithReason<std::runtime_error>(info::reason("volume-not-mounted"),
                                                   "Cannot backup an unmounted device!");
    }
}

void ValidateLocalTargets::settleType(const info::BackupableVolume& volume) {
    const std::string& uuid = volume.getUuid();
    try {
        if (dataProvider.hasVolume(uuid)) {
            return;
        }
    } catch (const std::exception& error) {
        info::LogEntry(logger, info::level::debug) << error.what();
        info::LogEntry(logger, info::level::info, info::reason("database-unreadable"))
            << "Could not find cached checksum from database for volume " << uuid
            << " falling back to DIFFERENTIAL MERGE";
        attributes.setBackupType(uuid, DIFFERENTIAL_MERGE);
        return;
    }
    info::LogEntry(logger, info::level::info, info::reason("volume-unknown"))
        << "No db entry found for volume " << volume.getDisplayName() << ", forcing FULL";
    attributes.setBackupType(uuid, FULL);
}

std::string ValidateLocalTargets::getName() const {
    return "Validate Local Targets";
}

} // namespace agent::core::backup::phase
