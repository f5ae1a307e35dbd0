#pragma once

#include "lvm/LogicalVolume.h"
#include "os/FileDescriptor.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tolvubd::lvm {

/// A physical volume, open for reading. The file may also be an image of one.
struct OpenDevice {
    dev_t number = 0;
    os::FileDescriptor file;
};

/// Does the work of readLogicalVolume, on devices that are open. The newest text in all areas counts. As in
/// LVM, an area that isn't sound is ignored if another one is sound.
std::optional<std::vector<VolumePiece>> findLogicalVolume(const std::string& uuid,
                                                          const std::vector<OpenDevice>& devices);

} // namespace tolvubd::lvm
