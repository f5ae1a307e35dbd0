#pragma once

#include <optional>
#include <string>

namespace tolvubd {

/// Adoption of the root partition. Nothing can be put between a partition and a file system that is mounted
/// from it. After adoption, the initramfs creates a linear device-mapper device on the partition at each
/// start, and mounts the root file system from that device, which can be tracked. Nothing changes on the
/// disk. If the initramfs doesn't know of the adoption, the machine starts as before.
///
/// Fails: std::system_error.

/// Adopts the partition of the root file system. Throws EOPNOTSUPP for any other partition, because that can
/// be unmounted and mounted from a linear device without a restart; EEXIST for a device-mapper device; ENODEV
/// for a partition without a PARTUUID; ENOENT when the initramfs hook isn't installed.
void adopt(const std::string& partition);
void undoAdoption();

/// Called before the root file system is mounted. If `root` was adopted, creates the linear device on it and
/// returns the node to mount instead. None if it wasn't adopted, or if that fails.
std::optional<std::string> createAdoptedDevice(const std::string& root) noexcept;

} // namespace tolvubd
