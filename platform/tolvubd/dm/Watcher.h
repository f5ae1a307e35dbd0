#pragma once

#include "dm/Mapper.h"

namespace tolvubd::dm {

/// Starts a process that lives as long as the snapshot device: as soon as `volume` gets another table than
/// its present one, by whoever, or the snapshot runs full, it puts the "error" target under `snapshot`, so
/// that nobody reads from there what isn't the moment of the snapshot. It learns of that from the kernel's
/// events, and looks once a second in case one was lost.
///
/// It is a copy of this process that makes system calls only. It has left the process group, so a signal to
/// that doesn't reach it. It ends when the snapshot device is gone, and when it gets SIGTERM itself, as
/// everybody does when the machine stops. It is a child of init, which takes care of its end.
///
/// Fails: std::system_error, when it can't be started. E2BIG for a volume with a table of many pieces.
void startWatcher(const Device& volume, const Device& snapshot);

} // namespace tolvubd::dm
