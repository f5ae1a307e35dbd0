#pragma once

#include "dm/Mapper.h"

namespace tolvubd::dm {

/// Starts a process that lives as long as the snapshot device. As soon as the table of `volume` changes, or
/// the snapshot's store overflows, the process loads the "error" target into `snapshot`, so that nothing
/// inconsistent is read from it. It waits for the kernel's events, and checks once a second in case one was
/// lost.
///
/// The process is a forked copy of this one that only makes system calls. It has a session of its own, so
/// signals to the program's process group don't reach it. It ends when the snapshot device is gone, and on
/// SIGTERM, which every process gets when the machine stops. Its parent is init, which reaps it.
///
/// Fails: std::system_error when the process can't be started; E2BIG when the volume's table is too long.
void startWatcher(const Device& volume, const Device& snapshot);

} // namespace tolvubd::dm
