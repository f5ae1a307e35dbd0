#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/ntfs/NTFSIndexEntry.h"
#include "core/fs/ntfs/NTFSPathElement.h"

#include <cstddef>

namespace agent::core::fs {

/// A node of a directory's index: entries in the order of their names, and a last entry without a name.
/// Owns:    nothing; the bytes and the name must outlive it.
/// Threads: immutable; safe from any.
/// Fails:   std::runtime_error if an entry isn't within the node, or its parts aren't within the entry.
class NTFSIndexNode {
public:
    /// `bytes` begins with the node's header and holds at least that. `sought` is the name for error texts.
    NTFSIndexNode(Bytes bytes, const NTFSPathElement& sought);

    /// How many bytes the node uses according to its header, which may be more than there are.
    static std::size_t usedBytes(Bytes bytes);
    /// Whether no entry may have a child.
    [[nodiscard]] bool isLeaf() const;
    [[nodiscard]] NTFSIndexEntry first() const;
    /// The entry after `entry`, which must not be the last.
    [[nodiscard]] NTFSIndexEntry after(const NTFSIndexEntry& entry) const;

private:
    [[nodiscard]] NTFSIndexEntry at(std::size_t position) const;
    void require(bool isInside) const;

    Bytes bytes;
    const NTFSPathElement& sought;
};

} // namespace agent::core::fs
