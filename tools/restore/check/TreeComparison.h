#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace restore::check {

/// What differs between the files of two volumes.
struct TreeDifferences {
    std::uint64_t files = 0; ///< that have been compared, of all kinds
    std::uint64_t differences = 0;
    std::vector<std::string> first; ///< "PATH: what differs", no more than twenty
};

/// Compares all files below two directories: kind, content, owner, mode, time of change, extended attributes
/// with ACLs, and where links lead to. The files of the driver and the agent in the top are left out. A file
/// that can't be read on one side differs.
TreeDifferences compareTrees(int image, int snapshot);

} // namespace restore::check
