#pragma once

#include <string>

namespace tolvubd {

/// Puts the layers of tracked volumes back after the machine has been started, before a file system on them
/// is mounted, if nothing can have been written meanwhile that they haven't seen. What becomes of it is
/// logged.
///
/// Whatever fails, a volume is left as LVM made it, and not suspended; the next backup of it then compares
/// all of it. One that is in use is never touched, but the driver is made to look whether it should have
/// layers. To be called as often as one likes.
///
/// Threads: any, of any number of processes: they take turns.
/// Fails:   never for a volume; std::system_error where the boot record can't be read.

/// How early it is. Before the root file system is there too little is known to give a volume up: one that
/// isn't found unchanged is left for later.
enum class Stage { beforeRoot, afterRoot };

/// `node` is that of a volume; one that isn't tracked is fine.
void reinsert(const std::string& node, Stage stage);
/// Every volume of the boot record that is there.
void reinsertAll(Stage stage);

} // namespace tolvubd
