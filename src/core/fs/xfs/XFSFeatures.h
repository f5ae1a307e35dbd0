#pragma once

#include <cstdint>
#include <string>

namespace agent::core::fs {

/// The feature words of an XFS super block that count in its format.
struct XFSFeatureWords {
    bool hasCrc = false;
    std::uint32_t features2 = 0; ///< without checksums
    std::uint32_t incompat = 0;  ///< with checksums, as is the next
    std::uint32_t roCompat = 0;
};

/// The features of XFS with which its trees of free extents can't be read, by name or number; empty if there
/// are none. docs/formats/xfs.md has the table, and why each is there.
std::string strangeXFSFeatures(const XFSFeatureWords& words);

} // namespace agent::core::fs
