#include "core/block/BlockRangeProvider.h"

#include "core/block/SizedBlockRangeProvider.h"
#include "support/FixedRanges.h"
#include "support/Messages.h"
#include "support/RangeCopies.h"
#include "support/RecordingLogger.h"
#include "support/ReferenceRanges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <stdexcept>

namespace agent::core::block {
namespace {

using test::allOf;
using test::FixedRanges;
using testing::ElementsAre;
using testing::IsEmpty;
using Ranges = std::vector<BlockRange>;
using Excluders = std::vector<std::unique_ptr<IBlockRangeProvider>>;

class BlockRangeProviderTest : public testing::Test {
protected:
    BlockRangeProvider without(const std::vector<Ranges>& exclusions, std::uint64_t totalBlocks) {
        Excluders excluders;
        for (const Ranges& ranges : exclusions) {
            excluders.push_back(std::make_unique<FixedRanges>(ranges));
        }
        return {log.logger, std::move(excluders), totalBlocks};
    }

    Ranges included(const std::vector<Ranges>& exclusions, std::uint64_t totalBlocks) {
        return allOf(without(exclusions, totalBlocks));
    }

    test::RecordingLogger log;
};

constexpr const char* spentAfter0 = "The Fixed Ranges has no more ranges to exclude after block 0, it will "
                                    "no longer be used for this volume.";
constexpr const char* threw =
    "The Fixed Ranges threw an exception while attempting to get an exclusion range! "
    "It will no longer be used for this volume.";

TEST_F(BlockRangeProviderTest, WithoutExcludersTheWholeVolumeIsOneRange) {
    EXPECT_THAT(included({}, 100), ElementsAre(BlockRange{0, 100}));
}

TEST_F(BlockRangeProviderTest, EmptyVolumeBeginsAtItsEnd) {
    const BlockRangeProvider provider = without({{{0, 10}}}, 0);
    EXPECT_TRUE(provider.begin() == provider.end());
}

TEST_F(BlockRangeProviderTest, GapsAreWhatIsLeft) {
    EXPECT_THAT(included({{{10, 5}, {20, 1}}}, 100),
                ElementsAre(BlockRange{0, 10}, BlockRange{15, 5}, BlockRange{21, 79}));
}

TEST_F(BlockRangeProviderTest, EqualOverlappingAndTouchingRangesMakeOneGap) {
    EXPECT_THAT(included({{{10, 10}}, {{10, 10}}}, 100), ElementsAre(BlockRange{0, 10}, BlockRange{20, 80}));
    EXPECT_THAT(included({{{10, 10}}, {{15, 15}}}, 100), ElementsAre(BlockRange{0, 10}, BlockRange{30, 70}));
    EXPECT_THAT(included({{{10, 10}, {20, 10}}}, 100), ElementsAre(BlockRange{0, 10}, BlockRange{30, 70}));
    EXPECT_THAT(included({{{10, 2}}, {{10, 20}}}, 100), ElementsAre(BlockRange{0, 10}, BlockRange{30, 70}));
    EXPECT_THAT(included({{{10, 20}, {12, 3}, {12, 30}}}, 100),
                ElementsAre(BlockRange{0, 10}, BlockRange{42, 58}));
}

TEST_F(BlockRangeProviderTest, ExcludedVolumeHasNoRanges) {
    const BlockRangeProvider provider = without({{{0, 60}}, {{50, 50}}}, 100);
    EXPECT_TRUE(provider.begin() == provider.end());
}

TEST_F(BlockRangeProviderTest, ExclusionAtTheStartMovesTheFirstRange) {
    EXPECT_THAT(included({{{0, 7}}}, 10), ElementsAre(BlockRange{7, 3}));
}

TEST_F(BlockRangeProviderTest, ExclusionsMayLieBehindTheVolume) {
    EXPECT_THAT(included({{{90, 50}}}, 100), ElementsAre(BlockRange{0, 90}));
    EXPECT_THAT(included({{{100, 5}}, {{500, 5}}}, 100), ElementsAre(BlockRange{0, 100}));
}

TEST_F(BlockRangeProviderTest, SpentExcluderIsNamedOnce) {
    EXPECT_THAT(included({{{0, 2}}, {{5, 1}, {8, 1}}}, 10),
                ElementsAre(BlockRange{2, 3}, BlockRange{6, 2}, BlockRange{9, 1}));
    EXPECT_EQ(log.count(info::level::debug, spentAfter0), 1);
    EXPECT_TRUE(log.has(info::level::debug,
                        "The Fixed Ranges has no more ranges to exclude after block 6, it will no longer be "
                        "used for this volume."));
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(BlockRangeProviderTest, ThrowingExcluderKeepsWhatItGave) {
    Excluders excluders;
    excluders.push_back(std::make_unique<FixedRanges>(Ranges{{10, 1}, {20, 1}, {30, 1}, {40, 1}}, 2));
    excluders.push_back(std::make_unique<FixedRanges>(Ranges{{50, 1}}));
    const BlockRangeProvider provider(log.logger, std::move(excluders), 60);
    EXPECT_THAT(allOf(provider),
                ElementsAre(BlockRange{0, 10}, BlockRange{11, 9}, BlockRange{21, 29}, BlockRange{51, 9}));
    EXPECT_EQ(log.count(info::level::error, threw), 1);
}

TEST_F(BlockRangeProviderTest, ExcluderThatThrowsAtOnceExcludesNothing) {
    Excluders excluders;
    excluders.push_back(std::make_unique<FixedRanges>(Ranges{{10, 1}}, 0));
    EXPECT_THAT(allOf(BlockRangeProvider(log.logger, std::move(excluders), 60)),
                ElementsAre(BlockRange{0, 60}));
    EXPECT_EQ(log.count(info::level::error, threw), 1);
}

class NoBeginning : public FixedRanges {
public:
    NoBeginning() : FixedRanges({}) {}
    [[nodiscard]] BlockRangeIterator begin() const override { throw std::runtime_error("no memory"); }
};

class NoEnd : public FixedRanges {
public:
    NoEnd() : FixedRanges({{1, 2}}) {}
    [[nodiscard]] BlockRangeIterator end() const override { throw std::runtime_error("no end"); }
};

TEST_F(BlockRangeProviderTest, ExcluderThatCannotBeginFailsTheCaller) {
    Excluders excluders;
    excluders.push_back(std::make_unique<NoBeginning>());
    const BlockRangeProvider provider(log.logger, std::move(excluders), 60);
    EXPECT_EQ(test::messageOf<std::runtime_error>([&] { (void)provider.begin(); }), "no memory");
}

TEST_F(BlockRangeProviderTest, ExcluderWithoutEndIsDropped) {
    Excluders excluders;
    excluders.push_back(std::make_unique<NoEnd>());
    EXPECT_THAT(allOf(BlockRangeProvider(log.logger, std::move(excluders), 60)),
                ElementsAre(BlockRange{0, 60}));
    EXPECT_EQ(log.count(info::level::error, threw), 1);
}

TEST_F(BlockRangeProviderTest, RangeWithAWrappedEndExcludesNothing) {
    constexpr std::uint64_t huge = std::numeric_limits<std::uint64_t>::max();
    EXPECT_THAT(included({{{10, huge - 5}, {20, 5}}}, 100),
                ElementsAre(BlockRange{0, 20}, BlockRange{25, 75}));
    EXPECT_THAT(included({{{50, huge - 20}}, {{10, 5}}}, 100),
                ElementsAre(BlockRange{0, 10}, BlockRange{15, 85}));
    EXPECT_THAT(included({{{huge, 1}}}, 100), ElementsAre(BlockRange{0, 100}));
    EXPECT_THAT(included({{{10, huge - 10}}}, 100), ElementsAre(BlockRange{0, 10}));
}

TEST_F(BlockRangeProviderTest, RangesOutOfOrderNeitherHangNorRepeatBlocks) {
    const Ranges ranges = included({{{50, 5}, {10, 5}, {50, 5}, {0, 1}, {70, 1}}}, 100);
    EXPECT_THAT(ranges, ElementsAre(BlockRange{0, 50}, BlockRange{55, 15}, BlockRange{71, 29}));
}

TEST_F(BlockRangeProviderTest, LargestVolumeEnds) {
    constexpr std::uint64_t huge = std::numeric_limits<std::uint64_t>::max();
    EXPECT_THAT(included({{{5, 5}}}, huge), ElementsAre(BlockRange{0, 5}, BlockRange{10, huge - 10}));
    EXPECT_THAT(included({{{5, huge - 5}}}, huge), ElementsAre(BlockRange{0, 5}));
}

TEST_F(BlockRangeProviderTest, SizeCountsWhatTheExcludersClaim) {
    EXPECT_EQ(without({{{0, 10}}, {{5, 10}}}, 100).size(), 80U);
    EXPECT_EQ(without({{{0, 200}}}, 100).size(), std::uint64_t{0} - 100);
    Excluders excluders;
    excluders.push_back(nullptr);
    excluders.push_back(
        std::make_unique<SizedBlockRangeProvider>(std::make_unique<FixedRanges>(Ranges{{0, 10}}), 0));
    const BlockRangeProvider provider(log.logger, std::move(excluders), 100);
    EXPECT_EQ(provider.size(), 100U);
    EXPECT_THAT(allOf(provider), ElementsAre(BlockRange{10, 90}));
}

TEST_F(BlockRangeProviderTest, EndCannotBeRead) {
    const BlockRangeProvider provider = without({}, 1);
    EXPECT_EQ(test::messageOf<std::out_of_range>([&] { (void)*provider.end(); }),
              "Tried to get past-the-end of Included Block Range Provider");
}

TEST_F(BlockRangeProviderTest, IncrementOfTheEndStaysThere) {
    const BlockRangeProvider provider = without({{{5, 1}}}, 10);
    BlockRangeIterator iterator = provider.begin();
    ++iterator;
    EXPECT_TRUE(iterator != provider.end());
    ++iterator;
    EXPECT_TRUE(iterator == provider.end());
    ++iterator;
    EXPECT_TRUE(iterator == provider.end());
}

TEST_F(BlockRangeProviderTest, CopiesAdvanceOnTheirOwn) {
    const BlockRangeProvider provider = without({{{5, 1}, {8, 1}}, {{6, 1}}}, 10);
    test::expectCopiesAdvanceAlone(BlockRangeProvider::iterator(provider), {0, 5}, {7, 1}, {9, 1});
    const BlockRangeProvider other = without({}, 10);
    EXPECT_FALSE(other.end() == provider.end());
}

/// Random exclusions in ascending order that touch and overlap in every way. Some are empty or lie past the
/// end of the volume.
Ranges randomExclusions(std::mt19937_64& random, std::uint64_t totalBlocks) {
    Ranges ranges(random() % 12);
    for (BlockRange& range : ranges) {
        range = {random() % (totalBlocks + 20),
                 random() % 4 == 0 ? random() % 3 : random() % (totalBlocks / 4 + 1)};
    }
    std::sort(ranges.begin(), ranges.end());
    return ranges;
}

TEST_F(BlockRangeProviderTest, AgreesWithAskingEveryBlock) {
    std::mt19937_64 random(20260307);
    for (int round = 0; round < 10'000; ++round) {
        const std::uint64_t totalBlocks = random() % 200;
        std::vector<Ranges> exclusions(random() % 5);
        Ranges all;
        for (Ranges& ranges : exclusions) {
            ranges = randomExclusions(random, totalBlocks);
            all.insert(all.end(), ranges.begin(), ranges.end());
        }
        ASSERT_EQ(included(exclusions, totalBlocks), test::referenceIncluded(all, totalBlocks)) << round;
        log.clear();
    }
}

} // namespace
} // namespace agent::core::block
