#include "tools/bek-audit/Strata.h"

#include "support/FixedRanges.h"

#include <gtest/gtest.h>

#include <numeric>

namespace audit {
namespace {

using agent::BlockRange;
using Ranges = std::vector<BlockRange>;
using Numbers = std::vector<std::uint64_t>;

constexpr std::size_t unused = indexOf(Stratum::unused);
constexpr std::size_t unchanged = indexOf(Stratum::unchanged);
constexpr std::uint32_t pageSize = 4096;

Strata::Layer layer(const Ranges& ranges) {
    return std::make_unique<agent::test::FixedRanges>(ranges);
}

Strata make(const Ranges& free, const Ranges& same, const Ranges& own, std::uint64_t blocks,
            std::uint32_t blockSize = pageSize) {
    Strata::Layers layers{layer(free), layer(same), {}};
    layers.files.push_back(layer(own));
    return {std::move(layers), blockSize, blocks};
}

Numbers allOf(std::uint64_t count) {
    Numbers numbers(count);
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

std::array<Numbers, strataCount> everythingOf(const Strata& strata) {
    const Strata::Counts counts = strata.count();
    return strata.locate({allOf(counts[unused]), allOf(counts[unchanged])});
}

TEST(Strata, AreWhatIsUnusedAndWhatIsUsedAndUnchanged) {
    const auto all = everythingOf(make({{2, 3}}, {{4, 4}}, {}, 10));
    EXPECT_EQ(all[unused], (Numbers{2, 3, 4}));
    EXPECT_EQ(all[unchanged], (Numbers{5, 6, 7}));
}

TEST(Strata, LeaveOutTheDriversOwnFiles) {
    const auto all = everythingOf(make({{0, 2}}, {{2, 6}}, {{3, 2}, {7, 1}}, 10));
    EXPECT_EQ(all[unused], (Numbers{0, 1}));
    EXPECT_EQ(all[unchanged], (Numbers{2, 5, 6}));
}

TEST(Strata, EndWithTheVolume) {
    const auto all = everythingOf(make({{0, 2}, {8, 50}}, {{4, 1}, {60, 5}}, {{100, 5}}, 10));
    EXPECT_EQ(all[unused], (Numbers{0, 1, 8, 9}));
    EXPECT_EQ(all[unchanged], (Numbers{4}));
}

TEST(Strata, TakeRangesThatTouchOverlapAndAreEmpty) {
    const auto all = everythingOf(make({{0, 1}, {1, 1}, {2, 0}, {1, 3}}, {}, {}, 10));
    EXPECT_EQ(all[unused], (Numbers{0, 1, 2, 3}));
}

TEST(Strata, HaveNothingUnchangedWhereThatIsNotKnown) {
    const Strata strata({layer({{1, 2}}), nullptr, {}}, pageSize, 10);
    EXPECT_EQ(strata.count(), (Strata::Counts{2, 0}));
}

TEST(Strata, ConsistOfWholePages) {
    const auto small = everythingOf(make({{1, 8}}, {}, {}, 100, 1024)); // from 1 KiB to 9 KiB
    EXPECT_EQ(small[unused], (Numbers{1}));
    const auto large = everythingOf(make({{1, 1}}, {}, {}, 100, 65536));
    EXPECT_EQ(large[unused].size(), 16U);
    EXPECT_EQ(large[unused].front(), 16U);
}

TEST(Strata, FindPagesByTheirNumbers) {
    const Strata strata = make({{2, 3}, {20, 3}}, {{10, 5}}, {}, 100);
    EXPECT_EQ(strata.locate({Numbers{0, 2, 3, 5}, Numbers{4}}),
              (Strata::Numbers{Numbers{2, 4, 20, 22}, Numbers{14}}));
}

} // namespace
} // namespace audit
