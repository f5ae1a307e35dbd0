#pragma once

#include "DriverFacts.h"
#include "info/BackupableVolume.h"
#include "info/DriverDeviceInfo.h"
#include "info/VolumeProvider.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace agent {
class IConfig;
}

namespace bekctl {

/// The space on a volume for the driver's and the agent's own files, in bytes unless a name says otherwise.
struct SnapshotSpace {
    std::uint64_t cowMebibytes = 0; ///< of the CoW file of the next snapshot
    std::uint64_t needed = 0;       ///< by the next backup, for its CoW file and a change table beside it
    std::uint64_t free = 0;
    std::uint64_t currentCowBytes = 0; ///< taken by the current CoW file
};

/// A volume as the agent sees it.
struct VolumeFacts {
    std::shared_ptr<agent::info::BackupableVolume> volume;
    std::string obstacle; ///< why the agent can't back it up; empty if it can
    std::optional<std::uint64_t> usedBytes;
    std::optional<agent::info::DriverDeviceInfo> device; ///< the driver's device, if any
    std::optional<SnapshotSpace> space;                  ///< only of a volume that can be backed up

    [[nodiscard]] bool isTracked() const;
    /// "tracked", "snapshot", "error 28", ...; empty if the driver has no device for it.
    [[nodiscard]] std::string state() const;
    /// Its mount point, or its device.
    [[nodiscard]] std::string name() const;
};

/// All volumes of this machine. Throws std::runtime_error if udisks2 can't be reached.
std::vector<VolumeFacts> findVolumes(agent::info::Logger& logger, const DriverFacts& driver,
                                     const agent::IConfig& config);

} // namespace bekctl
