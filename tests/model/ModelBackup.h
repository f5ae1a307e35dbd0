#pragma once

#include "core/backup/BackupType.h"
#include "model/FaultPlan.h"
#include "model/World.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace agent::model {

enum class Outcome { finished, failed, killed };

/// A backup of all volumes that are wanted: the agent's own session over the driver of the model, with the
/// rules of a backup's other phases around it.
struct BackupOrder {
    std::uint32_t type = core::backup::INCREMENTAL;
    std::size_t volumes = 1;
    Fault fault;
    bool isHeldOpen = false;  ///< somebody opens a file in the mounted snapshot, and keeps it
    bool isMountLeft = false; ///< if the backup is killed, its snapshot stays mounted
    /// The snapshots fail before the copy, and show from then on what programs write.
    bool isSnapshotLost = false;
};

struct BackupResult {
    Outcome outcome = Outcome::failed;
    std::uint32_t steps = 0;
    std::string wrong; ///< empty, or what a backup that has finished didn't bring
    std::vector<std::string> log;
};

class HeldMounts;

BackupResult runBackup(World& world, const BackupOrder& order, HeldMounts& mounts);

/// Mounts something where the snapshots of a volume belong, and keeps it busy until it is released.
class HeldMounts {
public:
    HeldMounts() = default;
    HeldMounts(const HeldMounts&) = delete;
    HeldMounts& operator=(const HeldMounts&) = delete;
    ~HeldMounts();

    void mount(std::size_t index);
    void hold(std::size_t index);
    void release();
    /// Releases, and takes away all that is mounted.
    void clear();

private:
    std::array<int, volumeCount> descriptors{-1, -1};
};

} // namespace agent::model
