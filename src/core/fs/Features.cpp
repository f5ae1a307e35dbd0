#include "core/fs/Features.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace agent::core::fs {

namespace {

std::string numberOf(std::uint32_t bit) {
    std::array<char, 16> text{};
    const int length = std::snprintf(text.data(), text.size(), "0x%x", bit);
    return {text.data(), static_cast<std::size_t>(length)};
}

} // namespace

std::string strangeFeatures(std::uint32_t bits, std::span<const Feature> known, std::string_view kind) {
    std::string names;
    for (std::uint32_t bit = 1; bit != 0; bit <<= 1U) {
        const auto feature = std::ranges::find(known, bit, &Feature::bit);
        if ((bits & bit) == 0 || (feature != known.end() && feature->leavesTheMapAlone)) {
            continue;
        }
        names += names.empty() ? "" : ", ";
        names += std::string(kind) + " ";
        names += feature != known.end() ? std::string(feature->name) : numberOf(bit);
    }
    return names;
}

} // namespace agent::core::fs
