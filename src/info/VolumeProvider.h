#pragma once

#include "info/BackupableVolume.h"
#include "info/log/Logger.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace agent::info {

class VolumeProviderImpl;

/// Finds the volumes of this machine: everything with a file system or swap space. Each call queries the
/// udisks2 daemon.
/// Owns:    nothing that lasts beyond a call; the logger must outlive it.
/// Threads: any thread may call it, several at once. A call blocks on the daemon and opens every device.
/// Fails:   the functions throw std::runtime_error if the daemon isn't available, and leave out a volume that
///          can't be described.
class VolumeProvider {
public:
    using Volume = std::shared_ptr<BackupableVolume>;
    using Filter = std::function<bool(Volume)>;

    explicit VolumeProvider(Logger& logger);
    VolumeProvider(const VolumeProvider&) = delete;
    VolumeProvider& operator=(const VolumeProvider&) = delete;
    virtual ~VolumeProvider();

    [[nodiscard]] virtual std::vector<Volume> getBackupableVolumes() const;
    /// The volumes for which `filter` returns true.
    [[nodiscard]] virtual std::vector<Volume> getBackupableVolumes(const Filter& filter) const;
    /// The first volume of this UUID; null if there is none.
    [[nodiscard]] virtual Volume getBackupableVolume(const std::string& uuid) const;

private:
    Logger& logger;
    std::unique_ptr<VolumeProviderImpl> impl;
};

} // namespace agent::info
