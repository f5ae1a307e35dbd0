#pragma once

#include "dm/Mapper.h"
#include "os/FileDescriptor.h"

#include <string>

namespace tolvubd {

/// Keeps LVM's commands from changing where the volumes of a group lie, by the lock that they take
/// themselves: an flock of /run/lock/lvm/V_GROUP. For as long as a table is exchanged that must be the
/// volume's own.
///
/// Owns:    the lock. None of a volume that isn't LVM's, or where LVM has no such locks.
/// Threads: one at a time.
/// Fails:   EBUSY when a command has had it for five seconds. One that waits for udev may be waiting for us.
class LvmLock {
public:
    explicit LvmLock(const dm::Device& volume);

private:
    os::FileDescriptor file;
};

/// The name of the group in a logical volume's device-mapper name, in which a dash of a name stands twice.
std::string groupOf(const std::string& name);

} // namespace tolvubd
