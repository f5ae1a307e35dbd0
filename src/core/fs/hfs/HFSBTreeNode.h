#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/hfs/HFSFork.h"

#include <cstddef>
#include <cstdint>
#include <optional>

namespace agent::core::fs {

/// A node of the tree of extents, and what its records say.
/// Owns:    nothing; the bytes must outlive it.
/// Threads: a value.
/// Fails:   std::runtime_error if a record, or the table of them, isn't within the node.
class HFSBTreeNode {
public:
    /// What a record of a leaf says: some blocks of a file.
    struct FileExtents {
        std::uint8_t forkType = 0;
        std::uint32_t fileId = 0;
        std::uint32_t startBlock = 0; ///< of the file, the first that the extents have
        HFSExtentRecord extents;
    };

    /// Of the bytes of a whole node, which are a power of two and 512 at least.
    explicit HFSBTreeNode(Bytes bytes) : bytes(bytes) {}

    [[nodiscard]] std::uint8_t kind() const;
    [[nodiscard]] std::size_t recordCount() const;
    /// The node that a record of an index names, 0 if it names none. May be asked for the place behind the
    /// last record.
    [[nodiscard]] std::uint32_t child(std::size_t record) const;
    /// What a record of a leaf says; nothing if there is none in its place.
    [[nodiscard]] std::optional<FileExtents> fileExtents(std::size_t record) const;

private:
    [[nodiscard]] std::size_t tableEntry(std::size_t record) const;
    [[nodiscard]] Bytes value(std::size_t offset, std::size_t length) const;

    Bytes bytes;
};

} // namespace agent::core::fs
