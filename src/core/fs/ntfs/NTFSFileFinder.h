#pragma once

#include "core/fs/ntfs/NTFSMasterFileTable.h"
#include "core/fs/ntfs/NTFSVolume.h"

#include <cstdint>
#include <string>

namespace agent::core::fs {

/// Finds files by their paths, from the root directory on.
/// Owns:    nothing; what the volume names must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   std::runtime_error; NTFSObjection where an attribute isn't to be relied on.
class NTFSFileFinder {
public:
    explicit NTFSFileFinder(const NTFSVolume& volume) : volume(volume) {}

    /// The path is UTF-8, with "\" between its parts. Upper and lower case are one. There is at least one
    /// run: a file that has none fails.
    [[nodiscard]] NTFSDataRuns findRuns(const std::string& path) const;

private:
    [[nodiscard]] NTFSDataRuns runsOf(std::uint64_t inode) const;

    NTFSVolume volume;
};

} // namespace agent::core::fs
