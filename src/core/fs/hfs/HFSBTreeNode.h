#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/hfs/HFSFork.h"

#include <cstddef>
#include <cstdint>
#include <optional>

namespace agent::core::fs {

/// A node of the extents B-tree, and its records.
/// Owns:    nothing; the bytes must outlive it.
/// Threads: immutable; safe from any.
/// Fails:   std::runtime_error if a record, or the table of records, isn't within the node.
class HFSBTreeNode {
public:
    /// The content of a leaf's record: some extents of a file.
    struct FileExtents {
        std::uint8_t forkType = 0;
        std::uint32_t fileId = 0;
        std::uint32_t startBlock = 0; ///< the block of the file at which the extents begin
        HFSExtentRecord extents;
    };

    /// `bytes` is a whole node; its size is a power of two, at least 512.
    explicit HFSBTreeNode(Bytes bytes) : bytes(bytes) {}

    [[nodiscard]] std::uint8_t kind() const;
    [[nodiscard]] std::size_t recordCount() const;
    /// The child node that a record of an index node names; 0 if it names none. `record` may be the entry
    /// after the last record.
    [[nodiscard]] std::uint32_t child(std::size_t record) const;
    /// The content of a leaf's record; nullopt if its table entry is 0.
    [[nodiscard]] std::optional<FileExtents> fileExtents(std::size_t record) const;

private:
    [[nodiscard]] std::size_t tableEntry(std::size_t record) const;
    [[nodiscard]] Bytes value(std::size_t offset, std::size_t length) const;

    Bytes bytes;
};

} // namespace agent::core::fs
