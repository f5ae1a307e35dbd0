#pragma once

#include "core/backup/IBackupAttributes.h"
#include "core/backup/IBackupStatusHandler.h"
#include "info/VolumeProvider.h"
#include "info/log/Logger.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace agent::core::backup {

/// What a run has come to, for programs that read the log: at its end one line a volume,
///     Backup record: {"asked":"INCREMENTAL","backup":ID,...}
/// of one JSON object:
///     backup, volume          their UUIDs
///     mountPoint              the first one; empty if the volume wasn't found, or isn't mounted
///     asked, type             FULL, DIFFERENTIAL MERGE or INCREMENTAL: what was asked for, what became of it
///     outcome                 success, failed or cancelled: that of the whole run
///     copiedBytes, totalBytes what was copied, and the estimate before; -1 until that is known
///     seconds                 how long the whole run took, to the millisecond
/// Owns:    nothing but what it has noted; the others must outlive it.
/// Threads: that of the run.
/// Fails:   never, but for want of memory.
class RunRecord {
public:
    using Volumes = std::vector<info::VolumeProvider::Volume>;

    /// The run begins.
    RunRecord(info::Logger& logger, std::string backup, const IBackupAttributes& attributes);

    /// The run has ended. `volumes` are those that were found.
    void write(const std::string& outcome, const IBackupStatusHandler& status, const Volumes& volumes) const;

private:
    [[nodiscard]] std::string lineOf(const VolumeBackupStatus& volume, const std::string& mountPoint,
                                     const std::string& outcome) const;
    [[nodiscard]] double seconds() const;

    info::Logger& logger;
    const std::string backup;
    const IBackupAttributes& attributes;
    std::map<std::string, std::uint32_t> asked; // by UUID
    const std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
};

} // namespace agent::core::backup
