#pragma once

#include <cstdint>
#include <string>

namespace agent::core::fs {

/// The feature words of an XFS superblock that are valid in its format.
struct XFSFeatureWords {
    bool hasCrc = false;
    std::uint32_t features2 = 0; ///< only without checksums
    std::uint32_t incompat = 0;  ///< only with checksums
    std::uint32_t roCompat = 0;  ///< only with checksums
};

/// The names or numbers of the set features with which the B-trees of free extents can't be read; empty if
/// there are none. docs/formats/xfs.md has the table of features and the reason for each.
std::string unsupportedXFSFeatures(const XFSFeatureWords& words);

} // namespace agent::core::fs
