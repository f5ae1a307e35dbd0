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

/// Logs the result of a run for programs that read the log. At the end of the run, each volume gets one line,
///     Backup record: {"asked":"INCREMENTAL","backup":ID,...}
/// with one JSON object:
///     backup, volume          their UUIDs
///     mountPoint              the first one; empty if the volume wasn't found, or isn't mounted
///     asked, type             FULL, DIFFERENTIAL MERGE or INCREMENTAL: the requested and the actual type
///     outcome                 success, failed or cancelled, of the whole run
///     copiedBytes, totalBytes the bytes copied, and the estimate before the copy; -1 until that is known
///     seconds                 how long the whole run took, to the millisecond
/// Owns:    the requested types and the start time; logger and attributes must outlive it.
/// Threads: the thread of the run.
/// Fails:   only with std::bad_alloc.
class RunResultLog {
public:
    using Volumes = std::vector<info::VolumeProvider::Volume>;

    /// To be constructed when the run begins: notes the time and the requested types.
    RunResultLog(info::Logger& logger, std::string backup, const IBackupAttributes& attributes);

    /// Logs the lines, at the end of the run. `volumes` are the volumes that were found.
    void write(const std::string& outcome, const IBackupStatusHandler& status, const Volumes& volumes) const;

private:
    [[nodiscard]] std::string lineOf(const VolumeBackupStatus& volume, const std::string& mountPoint,
                                     const std::string& outcome) const;
    [[nodiscard]] double seconds() const;

    info::Logger& logger;
    const std::string backup;
    const IBackupAttributes& attributes;
    std::map<std::string, std::uint32_t> requestedTypes; // by UUID
    const std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
};

} // namespace agent::core::backup
