#pragma once

#include "era/BlockReader.h"

namespace tolvubd::era {

/// Where a value stands: `offset` is in bytes of the node.
using VisitValue = std::function<void(std::uint64_t key, const Block& node, std::size_t offset)>;

/// Shows each value of the tree whose root is at `root`, in no order, level by level: the nodes of one level
/// are read in the order in which they lie. `valueSize` is in bytes. Throws EBADMSG for a tree that is deeper
/// than any that a kernel makes, and for what BlockReader finds.
void walkTree(BlockReader& reader, std::uint64_t root, std::uint32_t valueSize, const VisitValue& visit);

} // namespace tolvubd::era
