#pragma once

#include "core/backup/SnapshotSessionControl.h"
#include "core/operation/IPhase.h"
#include "info/VolumeProvider.h"
#include "info/log/Logger.h"

#include <string>
#include <vector>

namespace agent::core::backup::phase {

/// Looks up the volumes for the UUIDs of a request. A missing volume fails the backup; the volumes found
/// before it stay in the list for the clean-up after the backup.
class PopulateVolumes : public IPhase {
public:
    using Volumes = SnapshotSessionControl::Volumes;

    PopulateVolumes(info::Logger& logger, const info::VolumeProvider& volumeProvider,
                    std::vector<std::string> uuids, Volumes& volumes);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    info::Logger& logger;
    const info::VolumeProvider& volumeProvider;
    const std::vector<std::string> uuids;
    Volumes& volumes;
};

} // namespace agent::core::backup::phase
