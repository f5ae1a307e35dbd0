#pragma once

#include "core/backup/IBackupType.h"
#include "core/backup/VolumeScript.h"

#include <cstdint>
#include <string>
#include <vector>

namespace agent::core::backup {

/// The part of a backup request that concerns its volumes: the backup type and the scripts of each volume.
/// Owns:    the records of the volumes.
/// Threads: the request's thread fills the object and hands it over; from then on, only the backup's thread
///          uses it.
/// Fails:   std::invalid_argument for a volume that is not part of the backup; no record is added then.
class IBackupAttributes : public IBackupType {
public:
    /// In no particular order.
    [[nodiscard]] virtual std::vector<std::string> getVolumeUUIDs() const = 0;
    /// A value of BackupType: first the requested type, later the type that the checks have settled on.
    [[nodiscard]] virtual std::uint32_t getBackupType(const std::string& uuid) const = 0;
    virtual void setBackupType(const std::string& uuid, std::uint32_t type) = 0;
    [[nodiscard]] virtual std::vector<VolumeScript> getScripts(const std::string& uuid) const = 0;
};

} // namespace agent::core::backup
