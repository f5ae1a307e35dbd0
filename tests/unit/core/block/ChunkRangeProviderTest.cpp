#include "core/block/ChunkRangeProvider.h"

#include "support/FixedRanges.h"
#include "support/Messages.h"
#include "support/RangeCopies.h"
#include "support/RecordingLogger.h"
#include "support/ReferenceRanges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <stdexcept>

namespace agent::core::block {
namespace {

using test::allOf;
using test::FixedRanges;
using testing::ElementsAre;
using testing::IsEmpty;
using Line = test::RecordingLogger::Line;
using Ranges = std::vector<BlockRange>;

class ChunkRangeProviderTest : public testing::Test {
protected:
    ChunkRangeProvider cut(const Ranges& ranges, std::uint64_t maxBlocksPerChunk) {
        return {log.logger, std::make_unique<FixedRanges>(ranges), maxBlocksPerChunk};
    }

    test::RecordingLogger log;
};

TEST_F(ChunkRangeProviderTest, NoBlockPerChunkIsRefused) {
    EXPECT_EQ(test::messageOf<std::invalid_argument>([&] { cut({}, 0); }), "Invalid max blocks per chunk!");
}

TEST_F(ChunkRangeProviderTest, OneBlockPerChunk) {
    EXPECT_THAT(allOf(cut({{3, 2}, {9, 1}}, 1)),
                ElementsAre(BlockRange{3, 1}, BlockRange{4, 1}, BlockRange{9, 1}));
}

TEST_F(ChunkRangeProviderTest, LastChunkOfARangeIsShort) {
    EXPECT_THAT(allOf(cut({{7, 25}}, 10)),
                ElementsAre(BlockRange{7, 10}, BlockRange{17, 10}, BlockRange{27, 5}));
}

TEST_F(ChunkRangeProviderTest, NoChunkGoesFromOneRangeToTheNext) {
    EXPECT_THAT(allOf(cut({{0, 3}, {3, 3}, {10, 20}}, 20)),
                ElementsAre(BlockRange{0, 3}, BlockRange{3, 3}, BlockRange{10, 20}));
}

TEST_F(ChunkRangeProviderTest, RangesAreLoggedAsTheyCome) {
    EXPECT_EQ(allOf(cut({{0, 30}, {40, 2}}, 20)).size(), 3U);
    EXPECT_THAT(log.lines(), ElementsAre(Line{info::level::debug, "The next block range provided is (40, 2)"},
                                         Line{info::level::debug,
                                              "No more block ranges have been provided, so there are no "
                                              "more chunks to copy"}));
}

TEST_F(ChunkRangeProviderTest, NoRangesGiveNoChunksAndNoLines) {
    const ChunkRangeProvider provider = cut({}, 5);
    EXPECT_TRUE(provider.begin() == provider.end());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ChunkRangeProviderTest, NoBaseGivesNothing) {
    const ChunkRangeProvider provider(log.logger, nullptr, 5);
    EXPECT_TRUE(provider.begin() == provider.end());
    EXPECT_EQ(provider.size(), 0U);
}

TEST_F(ChunkRangeProviderTest, SizeIsThatOfItsBase) {
    EXPECT_EQ(cut({{0, 30}, {40, 2}}, 20).size(), 32U);
}

TEST_F(ChunkRangeProviderTest, EndCannotBeRead) {
    const ChunkRangeProvider provider = cut({{0, 1}}, 1);
    BlockRangeIterator iterator = provider.begin();
    ++iterator;
    ++iterator;
    EXPECT_TRUE(iterator == provider.end());
    EXPECT_EQ(test::messageOf<std::out_of_range>([&] { (void)*iterator; }),
              "Tried to get past-the-end of Chunk Block Range Provider");
}

TEST_F(ChunkRangeProviderTest, CopiesAdvanceOnTheirOwn) {
    const ChunkRangeProvider provider = cut({{0, 5}, {10, 5}}, 4);
    test::expectCopiesAdvanceAlone(ChunkRangeProvider::iterator(provider), {0, 4}, {4, 1}, {10, 4});
}

TEST_F(ChunkRangeProviderTest, EmptyRangeIsAnEmptyChunk) {
    EXPECT_THAT(allOf(cut({{2, 0}, {5, 1}}, 4)), ElementsAre(BlockRange{2, 0}, BlockRange{5, 1}));
}

TEST_F(ChunkRangeProviderTest, RangeUpToTheLastNumberEnds) {
    constexpr std::uint64_t huge = std::numeric_limits<std::uint64_t>::max();
    EXPECT_THAT(allOf(cut({{huge - 5, 5}}, 3)),
                ElementsAre(BlockRange{huge - 5, 3}, BlockRange{huge - 2, 2}));
}

TEST_F(ChunkRangeProviderTest, AgreesWithCountingBlocks) {
    std::mt19937_64 random(20260308);
    for (int round = 0; round < 10'000; ++round) {
        Ranges ranges;
        std::uint64_t next = random() % 3;
        while (ranges.size() < random() % 20) {
            ranges.push_back({next, 1 + random() % 40});
            next = ranges.back().end() + random() % 10;
        }
        const std::uint64_t most = 1 + random() % 30;
        ASSERT_EQ(allOf(cut(ranges, most)), test::referenceChunks(ranges, most)) << round;
        log.clear();
    }
}

/// A loop over millions of ranges must not even format log lines that the level suppresses.
TEST(ChunkRangeProviderQuiet, LinesThatNobodyReadsAreNotMade) {
    std::vector<std::string> lines;
    info::Logger quiet([&](const std::string& text, int, info::LogTime) { lines.push_back(text); },
                       [](int level) { return level < info::level::debug; });
    const ChunkRangeProvider provider(quiet, std::make_unique<FixedRanges>(Ranges{{0, 1}, {5, 1}}), 4);
    EXPECT_EQ(allOf(provider).size(), 2U);
    EXPECT_THAT(lines, ElementsAre(testing::HasSubstr("No more block ranges")));
}

TEST(ChunkRangeProviderQuiet, NewLogLevelTakesEffectOnTheWay) {
    std::size_t lines = 0;
    bool wanted = false;
    info::Logger changing([&](const std::string&, int, info::LogTime) { ++lines; },
                          [&](int) { return wanted; });
    Ranges ranges;
    for (std::uint64_t start = 0; start < 2000; start += 2) {
        ranges.push_back({start, 1});
    }
    const ChunkRangeProvider provider(changing, std::make_unique<FixedRanges>(ranges), 4);
    for (const BlockRange& chunk : provider) {
        wanted = chunk.start >= 200;
    }
    EXPECT_THAT(lines, testing::AllOf(testing::Gt(500U), testing::Lt(900U)));
}

} // namespace
} // namespace agent::core::block
