#pragma once

namespace tolvubd {

/// Gives each tracked volume that nobody has mounted for writing any more a seal with the fingerprint of its
/// file system, by which the next start can tell that nothing was written meanwhile. For when the machine
/// stops; the layers stay, so that it does no harm at any other time.
///
/// Fails: never for a volume; what stands in the way is logged. std::system_error where the boot record
/// can't be
///        read.
void closeVolumes();

} // namespace tolvubd
