#pragma once

#include <cstdint>
#include <set>
#include <sys/types.h>

namespace tolvubd {

/// Makes the node /dev/tolvu<minor> that of a block device.
void showDevice(dev_t number, std::uint32_t minor);
/// EBUSY when a file system is mounted from the node, or somebody else has it for himself alone.
void requireUnused(std::uint32_t minor);
/// Removes all nodes of the driver but those of the minors named.
void removeNodesExcept(const std::set<std::uint32_t>& minors);

} // namespace tolvubd
