#pragma once

#include "Check.h"
#include "VolumeFacts.h"

#include <string>
#include <vector>

/// What of the volumes would make a backup fail, or copy more than it is asked to.
namespace bekctl {

/// Looks at the volumes that have been backed up, `known` by their UUIDs; where there are none, at all that
/// can be. `isBackupRunning` says that a snapshot is in order.
Findings checkVolumes(const std::vector<VolumeFacts>& volumes, const std::vector<std::string>& known,
                      bool isBackupRunning);

/// Whether the CoW file of the next backup finds room, and that of the one after it: while a backup runs
/// there are two of a volume that is tracked.
Finding checkRoom(const Room& room, const std::string& uuid, const std::string& name);

/// The size in MiB that leaves room for two CoW files; 0 if there is none for the smallest.
std::uint64_t fittingCowMebibytes(const Room& room);

} // namespace bekctl
