#pragma once

#include "info/BackupableVolume.h"
#include "info/log/Logger.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace agent::info {

class VolumeProviderImpl;

/// Finds the volumes of this machine, by asking the udisks2 daemon anew each time. Whatever carries a file
/// system or swap space is one.
/// Owns:    nothing that lasts beyond a call; the logger must outlive it.
/// Threads: safe from any at once. A call blocks on the daemon, and opens every volume's device.
/// Fails:   std::runtime_error if the daemon can't be asked. A volume that can't be described is left out.
class VolumeProvider {
public:
    using Volume = std::shared_ptr<BackupableVolume>;
    using Filter = std::function<bool(Volume)>;

    explicit VolumeProvider(Logger& logger);
    VolumeProvider(const VolumeProvider&) = delete;
    VolumeProvider& operator=(const VolumeProvider&) = delete;
    virtual ~VolumeProvider();

    [[nodiscard]] virtual std::vector<Volume> getBackupableVolumes() const;
    /// Those for which `filter` is true.
    [[nodiscard]] virtual std::vector<Volume> getBackupableVolumes(const Filter& filter) const;
    /// The first volume of this UUID; null if there is none.
    [[nodiscard]] virtual Volume getBackupableVolume(const std::string& uuid) const;

private:
    Logger& logger;
    std::unique_ptr<VolumeProviderImpl> impl;
};

} // namespace agent::info
