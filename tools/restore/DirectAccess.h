#pragma once

#include "os/FileDescriptor.h"

namespace restore {

/// From here on reads and writes go through the page cache: where an image or a volume begins or ends in the
/// middle of one of the device's blocks. False if they did so before.
bool endDirectAccess(const os::FileDescriptor& file);

} // namespace restore
