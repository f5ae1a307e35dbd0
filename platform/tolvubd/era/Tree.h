#pragma once

#include "era/BlockReader.h"

namespace tolvubd::era {

/// Receives a value: it is at `offset` in `node`, in bytes.
using VisitValue = std::function<void(std::uint64_t key, const Block& node, std::size_t offset)>;

/// Calls `visit` for each value of the tree whose root is at `root`, in any order. Goes level by level, and
/// reads the nodes of a level in the order of their places. `valueSize` is in bytes. Throws EBADMSG for a
/// tree deeper than the kernel makes, and passes on what BlockReader throws.
void walkTree(BlockReader& reader, std::uint64_t root, std::uint32_t valueSize, const VisitValue& visit);

} // namespace tolvubd::era
