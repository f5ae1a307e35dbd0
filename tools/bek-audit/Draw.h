#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace audit {

using RandomSource = std::mt19937_64;

/// Draws `count` different numbers below `population`, ascending; each set is equally likely. Returns all
/// numbers if there are no more than `count`.
std::vector<std::uint64_t> draw(std::uint64_t population, std::uint64_t count, RandomSource& source);

} // namespace audit
