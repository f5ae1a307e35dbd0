#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

namespace agent::core::fs {

/// A bit by which a file system says that its structures are not those that every reader knows.
struct Feature {
    std::uint32_t bit;
    std::string_view name;
    bool leavesTheMapAlone; ///< what is read of used and free blocks means the same with it
};

/// A word of them in a super block.
struct FeatureWord {
    std::uint32_t bits;
    std::span<const Feature> known;
    std::string_view kind;
};

/// The features that are set and known to change the map, or not known at all: the kind and the name of
/// each, or its number, with commas between them. Empty if there are none.
std::string strangeFeatures(std::initializer_list<FeatureWord> words);

} // namespace agent::core::fs
