#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace restore::check {

/// The differences between the files of two volumes.
struct TreeDifferences {
    std::uint64_t files = 0; ///< number of files compared, of all kinds
    std::uint64_t differences = 0;
    std::vector<std::string> first; ///< "PATH: what differs", at most twenty
};

/// Compares all files below two directories: kind, content, owner, mode, modification time, extended
/// attributes with ACLs, and the targets of links. Leaves out the driver's and the agent's files in the root
/// directory. A file that can't be read on one side counts as different.
TreeDifferences compareTrees(int image, int snapshot);

} // namespace restore::check
