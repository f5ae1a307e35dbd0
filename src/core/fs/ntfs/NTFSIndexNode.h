#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/ntfs/NTFSIndexEntry.h"
#include "core/fs/ntfs/NTFSPathElement.h"

#include <cstddef>

namespace agent::core::fs {

/// A node of a directory's index: entries in the order of their names, the last one of which has none.
/// Owns:    nothing; the bytes and the name must outlive it.
/// Threads: a value.
/// Fails:   std::runtime_error where an entry isn't within the node, or its parts aren't within the entry.
class NTFSIndexNode {
public:
    /// From the head of the node on, at least that. The name is looked for in it.
    NTFSIndexNode(Bytes bytes, const NTFSPathElement& sought);

    /// How many bytes a node uses, as its head has it: more than there are is possible.
    static std::size_t usedBytes(Bytes bytes);
    /// Whether no entry may have a child.
    [[nodiscard]] bool isLeaf() const;
    [[nodiscard]] NTFSIndexEntry first() const;
    /// The one behind an entry that isn't the last.
    [[nodiscard]] NTFSIndexEntry after(const NTFSIndexEntry& entry) const;

private:
    [[nodiscard]] NTFSIndexEntry at(std::size_t position) const;
    void require(bool isInside) const;

    Bytes bytes;
    const NTFSPathElement& sought;
};

} // namespace agent::core::fs
