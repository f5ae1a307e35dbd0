#pragma once

#include "dm/Mapper.h"
#include "os/FileDescriptor.h"

#include <string>

namespace tolvubd {

/// Keeps LVM's commands from moving the volumes of a group, by taking the lock that these commands take: an
/// flock of /run/lock/lvm/V_GROUP. It is needed while a volume's table is exchanged.
///
/// Owns:    the lock. No lock for a volume that isn't LVM's, or where LVM has no such locks.
/// Threads: one at a time.
/// Fails:   std::system_error, with EBUSY when a command has held the lock for five seconds: it may be
///          waiting for udev, and udev for this process.
class LvmLock {
public:
    explicit LvmLock(const dm::Device& volume);

private:
    os::FileDescriptor file;
};

/// The name of the volume group in a logical volume's device-mapper name, where each dash of a name is
/// doubled.
std::string groupOf(const std::string& name);

} // namespace tolvubd
