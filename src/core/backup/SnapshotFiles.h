#pragma once

#include "common/Path.h"
#include "info/DriverDeviceInfo.h"

#include <string>
#include <vector>

/// The files that the driver and the agent keep at the root of each protected volume. Two CoW files
/// alternate: the driver names the current one, and the other dates from before the current snapshot or
/// tracking began.
namespace agent::core::backup::snapshot_files {

/// The paths of all these files on a volume that is mounted at `root`. `driverFiles` are the names of the
/// files that the driver keeps there beside the CoW files.
std::vector<std::string> pathsUnder(const Path& root, const std::vector<std::string>& driverFiles);

/// The CoW file that records the changes since the last backup: the current CoW file while the device is
/// tracked, the other one during a snapshot. `root` is the volume's mount point.
std::string changeRecord(const Path& root, const info::DriverDeviceInfo& device);

/// The CoW file that the device no longer uses.
std::string oldCowFile(const Path& root, const info::DriverDeviceInfo& device);

/// Whether two paths name the two CoW files, in either order.
bool areBothCowFiles(const std::string& one, const std::string& other);

} // namespace agent::core::backup::snapshot_files
