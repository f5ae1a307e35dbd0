#pragma once

#include "info/log/Logger.h"
#include "os/FileDescriptor.h"

namespace agent::core::backup {

/// Keeps the machine from sleeping, going idle and shutting down for as long as the object lives.
/// Owns:    the login manager's inhibitor lock, which is a descriptor and nothing else; the connection to the
///          bus ends with the constructor. The logger must outlive the object.
/// Threads: one at a time. The constructor blocks for the answer, up to the bus's own time-out.
/// Fails:   never; a lock that isn't to be had is a warning, and the object then holds nothing.
class SystemSleepLock {
public:
    explicit SystemSleepLock(info::Logger& logger);
    SystemSleepLock(const SystemSleepLock&) = delete;
    SystemSleepLock& operator=(const SystemSleepLock&) = delete;
    virtual ~SystemSleepLock();

private:
    info::Logger& logger;
    os::FileDescriptor inhibitFd;
};

} // namespace agent::core::backup
