#pragma once

#include "dm/Mapper.h"

namespace tolvubd::dm {

/// Starts a process that lives as long as the snapshot device: as soon as `volume` gets another table than
/// its present one, by whoever, or the snapshot runs full, it puts the "error" target under `snapshot`, so
/// that nobody reads from there what isn't the moment of the snapshot. It learns of that from the kernel's
/// events, and looks once a second in case one was lost.
///
/// It is a copy of this process that makes system calls only and has its memory locked. It has left the
/// process group and lets no signal in but SIGKILL. It ends by itself when the snapshot device is gone.
///
/// Fails: std::system_error, when it can't be started.
void startWatcher(const Device& volume, const Device& snapshot);

} // namespace tolvubd::dm
