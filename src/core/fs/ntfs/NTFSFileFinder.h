#pragma once

#include "core/fs/ntfs/NTFSMasterFileTable.h"
#include "core/fs/ntfs/NTFSVolume.h"

#include <cstdint>
#include <string>

namespace agent::core::fs {

/// Finds files by their paths, from the root directory on.
/// Owns:    nothing; everything the volume refers to must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   std::runtime_error; NTFSError if an attribute isn't plausible.
class NTFSFileFinder {
public:
    explicit NTFSFileFinder(const NTFSVolume& volume) : volume(volume) {}

    /// The path is in UTF-8, with "\" between its parts, and is case-insensitive. The result has at least one
    /// run: throws for a file without runs.
    [[nodiscard]] NTFSDataRuns findRuns(const std::string& path) const;

private:
    [[nodiscard]] NTFSDataRuns runsOf(std::uint64_t inode) const;

    NTFSVolume volume;
};

} // namespace agent::core::fs
