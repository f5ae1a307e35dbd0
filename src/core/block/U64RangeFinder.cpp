#include "core/block/U64RangeFinder.h"

#include <cstring>
#include <stdexcept>

namespace agent {

std::vector<BlockRange> U64RangeFinder::findRanges(const void* map, std::uint64_t count) const {
    if (map == nullptr) {
        throw std::invalid_argument("Bad usage map pointer passed to findRanges function");
    }
    const auto* const words = static_cast<const std::uint8_t*>(map);
    std::vector<BlockRange> ranges;
    bool running = false;
    for (std::uint64_t index = 0; index < count; ++index) {
        std::uint64_t word = 0;
        std::memcpy(&word, words + index * sizeof(word), sizeof(word));
        const bool wanted = (word != 0) == targetValue;
        if (wanted && !running) {
            ranges.push_back({index, 1});
        } else if (wanted) {
            ++ranges.back().length;
        }
        running = wanted;
    }
    return ranges;
}

} // namespace agent
