#pragma once

#include <cstdint>
#include <set>
#include <string>

namespace tolvubd {

/// Shows a capture as the block device /dev/tolvu<minor>, read-only, through a loop device. The node appears
/// only when it can be used.
void showCapture(const std::string& capture, std::uint32_t sectorSize, std::uint32_t minor);

/// EBUSY when a file system is mounted from the node, or somebody else has it for himself alone.
void requireUnused(std::uint32_t minor);

/// Takes the capture's loop devices away, now or when their last user has closed them.
void detachCapture(const std::string& capture);

/// Removes all nodes of the driver but those of the minors named.
void removeNodesExcept(const std::set<std::uint32_t>& minors);

} // namespace tolvubd
