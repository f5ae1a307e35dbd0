#pragma once

#include "info/log/Logger.h"
#include "os/FileDescriptor.h"

namespace agent::core::backup {

/// Keeps the machine from sleeping, going idle and shutting down for as long as the object lives.
/// Owns:    the login manager's inhibitor lock, which is just a file descriptor; the constructor closes its
///          bus connection again. The logger must outlive the object.
/// Threads: one at a time. The constructor waits for the reply, up to the bus's default time-out.
/// Fails:   never; if the lock can't be taken, a warning is logged and the object holds nothing.
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
