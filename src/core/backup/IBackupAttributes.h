#pragma once

#include "core/backup/IBackupType.h"
#include "core/backup/VolumeScript.h"

#include <cstdint>
#include <string>
#include <vector>

namespace agent::core::backup {

/// What a backup is to do with each of its volumes.
/// Owns:    the records of the volumes.
/// Threads: filled by the request's thread, then handed over; from then on the thread of the backup only.
/// Fails:   std::invalid_argument for a volume that is not part of the backup; nothing is added by it.
class IBackupAttributes : public IBackupType {
public:
    /// In no particular order.
    [[nodiscard]] virtual std::vector<std::string> getVolumeUUIDs() const = 0;
    /// A value of BackupType: at first what was asked for, later what the checks have made of it.
    [[nodiscard]] virtual std::uint32_t getBackupType(const std::string& uuid) const = 0;
    virtual void setBackupType(const std::string& uuid, std::uint32_t type) = 0;
    [[nodiscard]] virtual std::vector<VolumeScript> getScripts(const std::string& uuid) const = 0;
};

} // namespace agent::core::backup
