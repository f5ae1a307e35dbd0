#include "core/backup/phase/PopulateVolumes.h"

#include <stdexcept>
#include <utility>

namespace agent::core::backup::phase {

PopulateVolumes::PopulateVolumes(info::Logger& logger, const info::VolumeProvider& volumeProvider,
                                 std::vector<std::string> uuids, Volumes& volumes)
    : logger(logger), volumeProvider(volumeProvider), uuids(std::move(uuids)), volumes(volumes) {}

void PopulateVolumes::execute() {
    for (const std::string& uuid : uuids) {
        info::VolumeProvider::Volume volume = volumeProvider.getBackupableVolume(uuid);
        if (!volume) {
            logger.log(info::level::error, info::reason("volume-not-found"), "Volume %s could not be found.",
                       uuid.c_str());
            throw info::WithReason<std::runtime_error>(info::reason("volume-not-found"),
                                                       "Cannot backup non existing volume.");
        }
        volumes.push_back(std::move(volume));
    }
}

std::string PopulateVolumes::getName() const {
    return "Populate Volumes";
}

} // namespace agent::core::backup::phase
