#pragma once

#include "Check.h"

#include <cstdint>
#include <optional>
#include <string>

/// Checks of the machine around the agent: what would make a backup fail.
namespace bekctl {

/// Checks the message bus and the services on it that the agent calls.
Findings checkServices();

/// `isSynchronised` is the kernel's answer, from isClockSynchronised().
Finding checkClock(bool isSynchronised);
bool isClockSynchronised();

/// Checks the quiesce scripts in a directory; a backup may be told to run any of them.
Findings checkScripts(const std::string& directory);

/// The free space for the log and the database.
struct DiskSpace {
    std::uint64_t free = 0;
    bool isReadOnly = false;
};
Finding checkDisk(const std::optional<DiskSpace>& space);
std::optional<DiskSpace> findDiskSpace(const std::string& directory);

/// `given` is the target that the administrator has named, `logged` the last one in the log; either may be
/// empty.
Finding checkTarget(const std::string& given, const std::string& logged);

} // namespace bekctl
