#pragma once

#include "os/FileDescriptor.h"

namespace tolvubd {

/// An exclusive lock on the layers while the machine starts or stops, when the driver's own lock file may not
/// be there. It is needed because several volumes can appear at the same time.
///
/// Owns:    the lock.
/// Threads: one at a time; objects of other processes wait.
/// Fails:   std::system_error, with EBUSY when another process has held the lock for ten seconds.
class BootLock {
public:
    BootLock();

private:
    os::FileDescriptor lock;
};

} // namespace tolvubd
