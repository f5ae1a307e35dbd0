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

/// The room on a volume for the driver's and the agent's own files, in bytes.
struct Room {
    std::uint64_t cowMebibytes = 0; ///< of the CoW file of the next snapshot
    std::uint64_t needed = 0; ///< by the next backup, which may take what is needed beside a CoW file too
    std::uint64_t free = 0;
    std::uint64_t present = 0; ///< taken by the CoW file that is there now
};

/// A volume as the agent sees it.
struct VolumeFacts {
    std::shared_ptr<agent::info::BackupableVolume> volume;
    std::string obstacle; ///< why the agent can't back it up; empty if it can
    std::optional<std::uint64_t> usedBytes;
    std::optional<agent::info::DriverDeviceInfo> device; ///< the driver's
    std::optional<Room> room;                            ///< of one that can be backed up

    [[nodiscard]] bool isTracked() const;
    /// "tracked", "snapshot", "error 28", ...; empty if the driver has no device for it.
    [[nodiscard]] std::string state() const;
    /// Where it is mounted, or its device.
    [[nodiscard]] std::string name() const;
};

/// All volumes of this machine. Throws std::runtime_error if udisks2 can't be asked.
std::vector<VolumeFacts> findVolumes(agent::info::Logger& logger, const DriverFacts& driver,
                                     const agent::IConfig& config);

} // namespace bekctl
