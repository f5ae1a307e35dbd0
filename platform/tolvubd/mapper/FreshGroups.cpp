#include "mapper/FreshGroups.h"

#include "capture/SpaceMap.h"

#include <optional>

namespace tolvubd {

namespace {

constexpr std::size_t bitsInDigit = 4;
constexpr const char* digits = "0123456789abcdef";

std::vector<bool> flagsIn(const std::string& text) {
    std::vector<bool> flags;
    for (const char letter : text) {
        const std::size_t digit = std::string(digits).find(letter);
        for (std::size_t bit = 0; bit < bitsInDigit; ++bit) {
            flags.push_back(digit != std::string::npos && (digit >> bit & 1U) != 0);
        }
    }
    return flags;
}

} // namespace

std::string groupsInUse(const os::FileDescriptor& image, std::uint64_t size) {
    const std::vector<bool> used = readExtGroups(image, size).value_or(std::vector<bool>{});
    std::string text;
    for (std::size_t group = 0; group < used.size(); group += bitsInDigit) {
        std::size_t digit = 0;
        for (std::size_t bit = 0; bit < bitsInDigit && group + bit < used.size(); ++bit) {
            digit |= used[group + bit] ? std::size_t{1} << bit : 0;
        }
        text += digits[digit];
    }
    return text;
}

std::vector<Extent> freshGroups(const os::FileDescriptor& image, std::uint64_t size,
                                const std::string& then) {
    if (groupsInUse(image, size) == then) {
        return {};
    }
    const std::optional<SpaceMap> map = readExtSpaceWithout(image, size, flagsIn(then));
    if (!map) {
        return {{0, size}};
    }
    std::vector<Extent> fresh;
    for (std::uint64_t block = 0; block < map->used.size(); ++block) {
        if (!map->used[block]) {
            continue;
        }
        const std::uint64_t offset = block * map->blockSize;
        if (!fresh.empty() && fresh.back().end() == offset) {
            fresh.back().length += map->blockSize;
        } else {
            fresh.push_back({offset, map->blockSize});
        }
    }
    return fresh;
}

} // namespace tolvubd
