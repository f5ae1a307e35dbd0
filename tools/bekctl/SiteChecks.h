#pragma once

#include "Check.h"

#include <cstdint>
#include <optional>
#include <string>

/// What of the machine around the agent would make a backup fail.
namespace bekctl {

/// The message bus and the services on it that the agent asks.
Findings checkServices();

/// What the kernel tells of the clock.
Finding checkClock(bool isSynchronised);
bool isClockSynchronised();

/// The quiesce scripts in a directory, each of which a backup may be told to run.
Findings checkScripts(const std::string& directory);

/// Room for the log and the database.
struct DiskRoom {
    std::uint64_t free = 0;
    bool isReadOnly = false;
};
Finding checkDisk(const std::optional<DiskRoom>& room);
std::optional<DiskRoom> findDiskRoom(const std::string& directory);

/// `given` is what the administrator has named, `logged` what the log has named last; either may be empty.
Finding checkTarget(const std::string& given, const std::string& logged);

} // namespace bekctl
