#pragma once

#include "lvm/LogicalVolume.h"
#include "os/FileDescriptor.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tolvubd::lvm {

/// A physical volume, open for reading. The file may also be an image of it.
struct OpenDevice {
    dev_t number = 0;
    os::FileDescriptor file;
};

/// What readLogicalVolume does, on devices that are open. Of the areas on all devices the newest text counts;
/// one that isn't sound is passed over where another is, as LVM does.
std::optional<std::vector<VolumePiece>> findLogicalVolume(const std::string& uuid,
                                                          const std::vector<OpenDevice>& devices);

} // namespace tolvubd::lvm
