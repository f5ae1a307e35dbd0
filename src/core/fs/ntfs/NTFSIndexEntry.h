#pragma once

#include "core/fs/ByteOrder.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace agent::core::fs {

/// An entry of a node of a directory's index: the name of a file, and the child node with the names before
/// it.
/// Owns:    nothing; the node must outlive it.
/// Threads: a plain value; const calls are safe from any thread.
/// Fails:   never. If `isSound` returns false, only `isLast`, `hasChild` and `end` may be called.
class NTFSIndexEntry {
public:
    /// `bytes` is the whole entry, at least its header; `position` is its offset in the node.
    NTFSIndexEntry(Bytes bytes, std::size_t position) : bytes(bytes), position(position) {}

    /// Whether the entry's parts lie within it.
    [[nodiscard]] bool isSound() const;
    /// Whether it is the last entry of the node, which comes after all names and has no name.
    [[nodiscard]] bool isLast() const;
    [[nodiscard]] bool hasChild() const;
    /// The node with the names before this one, in the index's VCN units.
    [[nodiscard]] std::uint64_t childVcn() const;
    /// The number of the file's record.
    [[nodiscard]] std::uint64_t record() const;
    /// The name in wide characters. An unpaired surrogate stays as it is.
    [[nodiscard]] std::wstring name() const;
    /// The offset of the next entry in the node.
    [[nodiscard]] std::size_t end() const { return position + bytes.size(); }

private:
    [[nodiscard]] std::uint16_t flags() const;
    [[nodiscard]] std::size_t nameBytes() const;

    Bytes bytes;
    std::size_t position;
};

} // namespace agent::core::fs
