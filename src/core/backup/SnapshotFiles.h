#pragma once

#include "common/Path.h"
#include "info/DriverDeviceInfo.h"

#include <string>
#include <vector>

/// The files that the driver and the agent keep at the root of each protected volume. Two CoW files take
/// turns; the one that the driver doesn't name is of the time before the current snapshot or tracking.
namespace agent::core::backup::snapshot_files {

/// All of them, as they appear in the root of a volume that is mounted at `root`; `driversOwn` are the names
/// of what the driver keeps there beside the CoW files.
std::vector<std::string> below(const Path& root, const std::vector<std::string>& driversOwn);

/// The CoW file with the record of what has changed since the last backup: while the device is tracked the
/// current one, during a snapshot the other. `root` is where the volume is mounted.
std::string changeRecord(const Path& root, const info::DriverDeviceInfo& device);

/// The CoW file that the device has left behind.
std::string old(const Path& root, const info::DriverDeviceInfo& device);

/// Whether two paths name the two CoW files, in either order.
bool areBothCowFiles(const std::string& one, const std::string& other);

} // namespace agent::core::backup::snapshot_files
