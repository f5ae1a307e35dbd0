#pragma once

#include "os/FileDescriptor.h"

namespace tolvubd {

/// A turn at the layers while the machine starts or stops, when the driver's own lock isn't there: several
/// volumes appear at the same time.
///
/// Owns:  the lock.
/// Fails: std::system_error, with EBUSY when somebody else has had it for ten seconds.
class BootTurn {
public:
    BootTurn();

private:
    os::FileDescriptor lock;
};

} // namespace tolvubd
