#pragma once

#include "core/backup/IBackupAttributes.h"

#include <unordered_map>

namespace agent::core::backup {

/// The part of a backup request that concerns one volume.
struct VolumeAttributes {
    std::uint64_t offset = 0; ///< Bytes from the start of the remote target to the volume's image.
    std::uint32_t backupType = 0;
    std::vector<VolumeScript> scripts;
};

/// See IBackupAttributes.
class BackupAttributes : public IBackupAttributes {
public:
    explicit BackupAttributes(std::unordered_map<std::string, VolumeAttributes> volumes);

    [[nodiscard]] bool isIncremental(const std::string& uuid) const override;
    [[nodiscard]] std::vector<std::string> getVolumeUUIDs() const override;
    [[nodiscard]] std::uint32_t getBackupType(const std::string& uuid) const override;
    void setBackupType(const std::string& uuid, std::uint32_t type) override;
    [[nodiscard]] std::vector<VolumeScript> getScripts(const std::string& uuid) const override;

private:
    std::unordered_map<std::string, VolumeAttributes> volumes;
};

} // namespace agent::core::backup
