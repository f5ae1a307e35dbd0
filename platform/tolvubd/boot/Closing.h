#pragma once

#include <chrono>

namespace tolvubd {

/// Gives each tracked volume that nobody has mounted for writing any more a seal with the fingerprint of its
/// file system, by which the next start can tell that nothing was written meanwhile. For when the machine
/// stops; the layers stay, so that it does no harm at any other time.
///
/// Volumes that are mounted for writing are waited for as long as `patience`, but for those of the system
/// itself, which are never unmounted.
///
/// Fails: never for a volume; what stands in the way is logged. std::system_error where the boot record
/// can't be
///        read.
void closeVolumes(std::chrono::seconds patience);

} // namespace tolvubd
