#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

namespace agent::core::fs {

/// A bit in a superblock that shows that the file system uses structures that not every reader knows.
struct Feature {
    std::uint32_t bit;
    std::string_view name;
    bool keepsMapValid; ///< whether the map of used blocks means the same with this feature
};

/// A word of feature bits in a superblock.
struct FeatureWord {
    std::uint32_t bits;
    std::span<const Feature> known;
    std::string_view kind;
};

/// The features that are set and change the map or are unknown: the kind of each and its name or number,
/// separated by commas. Empty if there are none.
std::string unsupportedFeatures(std::initializer_list<FeatureWord> words);

} // namespace agent::core::fs
