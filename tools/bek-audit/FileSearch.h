#pragma once

#include "Interrupt.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace audit {

/// The file or directory that a page of a volume belongs to.
struct Owner {
    std::string path;      ///< below the root of the file system
    bool isWritten = true; ///< false for unwritten preallocated space, or beyond the file's end
};

struct FoundOwners {
    std::map<std::uint64_t, Owner> byPage; ///< pages that belong to a file or a directory
    /// Whether the blocks of every file are known. If so, a page without an owner holds no file's content.
    bool isComplete = true;
};

/// Looks for the owners of `pages` (of 4096 bytes, ascending) in the block lists of all files and directories
/// below `root`, the root of a mounted file system. Throws what `interrupt` throws, and std::runtime_error if
/// a directory can't be read.
FoundOwners findOwners(const std::string& root, const std::vector<std::uint64_t>& pages,
                       const Interrupt& interrupt);

} // namespace audit
