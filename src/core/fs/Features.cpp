#include "core/fs/Features.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>

namespace agent::core::fs {

namespace {

std::string numberOf(std::uint32_t bit) {
    std::array<char, 16> text{};
    const int length = std::snprintf(text.data(), text.size(), "0x%x", bit);
    return {text.data(), static_cast<std::size_t>(length)};
}

std::string nameOf(const FeatureWord& word, std::uint32_t bit) {
    const auto feature = std::ranges::find(word.known, bit, &Feature::bit);
    return std::string(word.kind) + " " +
           (feature != word.known.end() ? std::string(feature->name) : numberOf(bit));
}

bool isUnsupported(const FeatureWord& word, std::uint32_t bit) {
    return std::ranges::none_of(
        word.known, [bit](const Feature& feature) { return feature.bit == bit && feature.keepsMapValid; });
}

} // namespace

std::string unsupportedFeatures(std::initializer_list<FeatureWord> words) {
    std::string names;
    for (const FeatureWord& word : words) {
        for (std::uint32_t bit = 1; bit != 0; bit <<= 1U) {
            if ((word.bits & bit) != 0 && isUnsupported(word, bit)) {
                names += (names.empty() ? "" : ", ") + nameOf(word, bit);
            }
        }
    }
    return names;
}

} // namespace agent::core::fs
