#pragma once

#include "core/backup/SnapshotSessionControl.h"
#include "core/operation/IPhase.h"
#include "info/log/Logger.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace agent::core::backup::phase {

/// Turns the UUIDs of a request into volumes. A volume that isn't there fails the backup; those found before
/// it stay in the list, for what has to be done after every backup.
class PopulateVolumes : public IPhase {
public:
    using Volumes = SnapshotSessionControl::Volumes;
    /// The volume with a UUID, null if there is none.
    using VolumeLookup = std::function<std::shared_ptr<info::BackupableVolume>(const std::string& uuid)>;

    PopulateVolumes(info::Logger& logger, const VolumeLookup& lookup, std::vector<std::string> uuids,
                    Volumes& volumes);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    info::Logger& logger;
    const VolumeLookup& lookup;
    const std::vector<std::string> uuids;
    Volumes& volumes;
};

} // namespace agent::core::backup::phase
