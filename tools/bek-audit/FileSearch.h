#pragma once

#include "Interrupt.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace audit {

/// Whose a page of a volume is.
struct Owner {
    std::string path;      ///< below the root of the file system
    bool isWritten = true; ///< not set aside for a file without ever having been written, nor behind its end
};

struct FoundOwners {
    std::map<std::uint64_t, Owner> byPage; ///< those that belong to a file or a directory
    /// Whether all files told where they lie: if so, what belongs to none holds the content of none.
    bool isComplete = true;
};

/// Asks every file and directory below the root of a mounted file system where it lies. `pages` of 4096 bytes
/// of the volume ascend. Throws what `interrupt` does, and std::runtime_error if a directory can't be read.
FoundOwners findOwners(const std::string& root, const std::vector<std::uint64_t>& pages,
                       const Interrupt& interrupt);

} // namespace audit
