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

/// A backup of the first `volumes` volumes. It uses the agent's own session with the model's driver; the
/// rules of the other phases are reimplemented.
struct BackupOrder {
    std::uint32_t type = core::backup::INCREMENTAL;
    std::size_t volumes = 1;
    Fault fault;
    bool isHeldOpen = false;  ///< a process opens a file in the mounted snapshot, and keeps it open
    bool isMountLeft = false; ///< if the backup is killed, its snapshot stays mounted
    /// The snapshots fail before the copy, and from then on show current data.
    bool isSnapshotLost = false;
};

struct BackupResult {
    Outcome outcome = Outcome::failed;
    std::uint32_t steps = 0;
    std::string wrong; ///< empty, or what is wrong in the images of a finished backup
    std::vector<std::string> log;
};

class HeldMounts;

BackupResult runBackup(World& world, const BackupOrder& order, HeldMounts& mounts);

/// Mounts something where a volume's snapshot is mounted, and keeps it busy until it is released.
/// Owns:    the mounts and the open files in them; the destructor removes both.
/// Threads: one.
/// Fails:   `mount` and `hold` throw std::runtime_error if the kernel refuses the mount.
class HeldMounts {
public:
    HeldMounts() = default;
    HeldMounts(const HeldMounts&) = delete;
    HeldMounts& operator=(const HeldMounts&) = delete;
    ~HeldMounts();

    void mount(std::size_t index);
    void hold(std::size_t index);
    void release();
    /// Releases and unmounts everything.
    void clear();

private:
    std::array<int, volumeCount> descriptors{-1, -1};
};

} // namespace agent::model
