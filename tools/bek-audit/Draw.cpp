#include "Draw.h"

#include <algorithm>
#include <numeric>
#include <unordered_set>

namespace audit {

/// Floyd's algorithm, whose memory grows with `count` and not with `population`.
std::vector<std::uint64_t> draw(std::uint64_t population, std::uint64_t count, RandomSource& source) {
    if (count >= population) {
        std::vector<std::uint64_t> all(population);
        std::iota(all.begin(), all.end(), 0);
        return all;
    }
    std::unordered_set<std::uint64_t> drawn;
    for (std::uint64_t last = population - count; last < population; ++last) {
        const std::uint64_t number = std::uniform_int_distribution<std::uint64_t>(0, last)(source);
        drawn.insert(drawn.contains(number) ? last : number);
    }
    std::vector<std::uint64_t> sorted(drawn.begin(), drawn.end());
    std::ranges::sort(sorted);
    return sorted;
}

} // namespace audit
