#pragma once

#include <string>

namespace tolvubd {

/// Puts the layers of tracked volumes back when the machine starts, before a file system on them is mounted,
/// unless the volume may have been written without the layers. Logs the outcome.
///
/// On failure a volume stays as LVM made it and isn't suspended; its next backup compares all of it. A volume
/// in use is never changed, but the driver then checks whether it should have layers. May be called any
/// number of times.
///
/// Threads: any, of any number of processes; a lock serialises them.
/// Fails:   std::system_error when the boot record can't be read. Failures with a volume are logged.

/// The stage of the machine's start. Before the root file system is mounted, too little is known to give up a
/// volume, so a volume that may have changed is left for later.
enum class Stage { beforeRoot, afterRoot };

/// Reinserts the layers of the volume with the device node `node`; does nothing if the volume isn't tracked.
void reinsert(const std::string& node, Stage stage);
/// Reinserts the layers of all volumes in the boot record that are present.
void reinsertAll(Stage stage);

} // namespace tolvubd
