#pragma once

#include "core/fs/ByteOrder.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace agent::core::fs {

/// An entry of a node of a directory's index: the name of a file, and where the names are that come before.
/// Owns:    nothing; the node must outlive it.
/// Threads: a value.
/// Fails:   nothing fails. Of one that isn't sound, only the length and the marks can be asked for.
class NTFSIndexEntry {
public:
    /// All of its bytes, at least the head of one, and where they begin in the node.
    NTFSIndexEntry(Bytes bytes, std::size_t position) : bytes(bytes), position(position) {}

    /// Whether its parts lie within it.
    [[nodiscard]] bool isSound() const;
    /// Of the node. It stands behind all names, and has none.
    [[nodiscard]] bool isLast() const;
    [[nodiscard]] bool hasChild() const;
    /// Where the names are that come before this one, in the units of the index.
    [[nodiscard]] std::uint64_t childVcn() const;
    /// The number of the file's record.
    [[nodiscard]] std::uint64_t record() const;
    /// A character that is half a pair stays as it is.
    [[nodiscard]] std::wstring name() const;
    /// Where the next one begins in the node.
    [[nodiscard]] std::size_t end() const { return position + bytes.size(); }

private:
    [[nodiscard]] std::uint16_t flags() const;
    [[nodiscard]] std::size_t nameBytes() const;

    Bytes bytes;
    std::size_t position;
};

} // namespace agent::core::fs
