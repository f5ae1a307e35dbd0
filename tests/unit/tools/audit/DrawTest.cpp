#include "tools/bek-audit/Draw.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace audit {
namespace {

TEST(Draw, TakesAllWhereThereAreNoMore) {
    RandomSource source(1);
    EXPECT_EQ(draw(3, 3, source), (std::vector<std::uint64_t>{0, 1, 2}));
    EXPECT_EQ(draw(2, 100, source), (std::vector<std::uint64_t>{0, 1}));
    EXPECT_TRUE(draw(0, 100, source).empty());
}

TEST(Draw, GivesDifferentNumbersInTheirOrder) {
    RandomSource source(2);
    for (const std::uint64_t population : {100UL, 1UL << 40U}) {
        const auto drawn = draw(population, 90, source);
        EXPECT_EQ(drawn.size(), 90U);
        EXPECT_TRUE(std::ranges::is_sorted(drawn));
        EXPECT_EQ(std::ranges::adjacent_find(drawn), drawn.end());
        EXPECT_LT(drawn.back(), population);
    }
}

TEST(Draw, IsTheSameForASeed) {
    RandomSource one(3);
    RandomSource same(3);
    RandomSource other(4);
    const auto drawn = draw(1000000, 50, one);
    EXPECT_EQ(drawn, draw(1000000, 50, same));
    EXPECT_NE(drawn, draw(1000000, 50, other));
}

TEST(Draw, FavoursNoNumber) {
    RandomSource source(5);
    constexpr int rounds = 20000;
    std::vector<int> counts(10);
    for (int round = 0; round < rounds; ++round) {
        for (const std::uint64_t number : draw(10, 3, source)) {
            ++counts[number];
        }
    }
    const double expected = rounds * 0.3;
    for (const int count : counts) {
        EXPECT_NEAR(count, expected, 5 * std::sqrt(expected * 0.7));
    }
}

} // namespace
} // namespace audit
