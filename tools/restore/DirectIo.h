#pragma once

#include "os/FileDescriptor.h"

namespace restore {

/// Switches the descriptor from direct I/O to the page cache, for an image or a volume that begins or ends in
/// the middle of a device's block. Returns false if it didn't use direct I/O.
bool disableDirectIo(const os::FileDescriptor& file);

} // namespace restore
