#pragma once

#include <cstdint>
#include <set>
#include <sys/types.h>

namespace tolvubd {

/// Makes /dev/tolvu<minor> a node of the block device `number`.
void showDevice(dev_t number, std::uint32_t minor);
/// Throws EBUSY when a file system is mounted from the node, or another process has it open exclusively.
void requireUnused(std::uint32_t minor);
/// Removes all nodes of the driver except those of these minors.
void removeNodesExcept(const std::set<std::uint32_t>& minors);

} // namespace tolvubd
