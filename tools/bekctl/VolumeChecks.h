#pragma once

#include "Check.h"
#include "VolumeFacts.h"

#include <string>
#include <vector>

/// Checks of the volumes: what would make a backup fail, or copy more than it is asked to.
namespace bekctl {

/// Checks the volumes that have been backed up (`known`, by their UUIDs); if there are none, all that can be
/// backed up. If `isBackupRunning`, an active snapshot is in order.
Findings checkVolumes(const std::vector<VolumeFacts>& volumes, const std::vector<std::string>& known,
                      bool isBackupRunning);

/// Checks whether there is space for the CoW files of the next two backups: while a tracked volume is backed
/// up, it has two of them.
Finding checkSnapshotSpace(const SnapshotSpace& space, const std::string& uuid, const std::string& name);

/// The size in MiB that leaves space for two CoW files; 0 if even the smallest doesn't fit twice.
std::uint64_t fittingCowMebibytes(const SnapshotSpace& space);

} // namespace bekctl
