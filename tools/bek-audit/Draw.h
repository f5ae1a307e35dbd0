#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace audit {

using RandomSource = std::mt19937_64;

/// `count` different numbers below `population`, each set of them as likely as any other, ascending. All of
/// them if there aren't more.
std::vector<std::uint64_t> draw(std::uint64_t population, std::uint64_t count, RandomSource& source);

} // namespace audit
