#pragma once

#include <optional>
#include <string>

namespace tolvubd {

/// A partition is mounted as it is, and then nothing can be put between it and its file system. One that is
/// adopted is found on a linear device of its own from the next start on, which has the same content and can
/// be tracked. Nothing changes on the disk, and where the initramfs knows nothing of it the machine starts
/// as ever.
///
/// Fails: std::system_error.

/// Only for the partition of the root file system: EOPNOTSUPP for any other, as that can be unmounted and
/// mounted from a linear device without a restart. EEXIST for what is on device-mapper already. ENODEV
/// without a PARTUUID. ENOENT where the initramfs has no hook that would do it.
void adopt(const std::string& partition);
void undoAdoption();

/// Before the root file system is mounted: puts the linear device on `root` if that was adopted, and returns
/// the node to mount instead. None where it wasn't, or that can't be done.
std::optional<std::string> putAdopted(const std::string& root) noexcept;

} // namespace tolvubd
