#include "core/block/BlockRange.h"

#include <gtest/gtest.h>

#include <random>

namespace agent {
namespace {

using Wide = unsigned __int128;

TEST(BlockRange, IsEmptyWithoutLength) {
    EXPECT_TRUE(BlockRange().empty());
    EXPECT_EQ(BlockRange(), (BlockRange{0, 0}));
    EXPECT_TRUE((BlockRange{7, 0}.empty()));
    EXPECT_FALSE((BlockRange{0, 1}.empty()));
}

TEST(BlockRange, EndsBehindItsLastBlock) {
    EXPECT_EQ((BlockRange{10, 5}.end()), 15U);
    EXPECT_EQ((BlockRange{10, 0}.end()), 10U);
}

TEST(BlockRange, IsOrderedByStartAndThenByLength) {
    EXPECT_LT((BlockRange{1, 9}), (BlockRange{2, 1}));
    EXPECT_LT((BlockRange{1, 1}), (BlockRange{1, 2}));
    EXPECT_GT((BlockRange{2, 1}), (BlockRange{1, 9}));
    EXPECT_LE((BlockRange{1, 1}), (BlockRange{1, 1}));
    EXPECT_GE((BlockRange{1, 1}), (BlockRange{1, 1}));
    EXPECT_NE((BlockRange{1, 1}), (BlockRange{1, 2}));
    EXPECT_NE((BlockRange{1, 1}), (BlockRange{2, 1}));
    EXPECT_FALSE((BlockRange{1, 1} < BlockRange{1, 1}));
}

TEST(ScaleUp, SpreadsAnEntryOverItsBlocks) {
    EXPECT_EQ(scaleUp(4, {3, 2}, 0), (BlockRange{12, 8}));
    EXPECT_EQ(scaleUp(4, {3, 2}, 100), (BlockRange{412, 8}));
    EXPECT_EQ(scaleUp(1, {3, 2}, 7), (BlockRange{10, 2}));
}

TEST(ScaleDown, TakesWholeBlocksOnly) {
    EXPECT_EQ(scaleDown(2, {1, 3}, 0), (BlockRange{1, 1}));
    EXPECT_EQ(scaleDown(2, {1, 2}, 0), (BlockRange{1, 0}));
    EXPECT_EQ(scaleDown(2, {0, 1}, 0), (BlockRange{0, 0}));
    EXPECT_EQ(scaleDown(2, {0, 4}, 8), (BlockRange{4, 2}));
    EXPECT_EQ(scaleDown(1, {5, 6}, 7), (BlockRange{12, 6}));
    EXPECT_EQ(scaleDown(16, {15, 1}, 0), (BlockRange{1, 0}));
}

TEST(ScaleDown, RemainderIsTakenWithoutTheOffset) {
    EXPECT_EQ(scaleDown(4, {0, 4}, 2), (BlockRange{1, 1}));
    EXPECT_EQ(scaleDown(4, {2, 4}, 2), (BlockRange{1, 0}));
}

/// The offset is a multiple of the factor, as in real bitmaps. Then a block counts exactly if all of its
/// entries lie in the range.
TEST(ScaleDown, AgreesWithAskingEveryBlock) {
    for (std::uint64_t factor = 1; factor <= 8; factor *= 2) {
        for (std::uint64_t start = 0; start < 20; ++start) {
            for (std::uint64_t length = 0; length < 20; ++length) {
                const std::uint64_t offset = 3 * factor;
                const BlockRange found = scaleDown(factor, {start, length}, offset);
                for (std::uint64_t block = 0; block * factor < 64; ++block) {
                    const bool whole =
                        block * factor >= start + offset && (block + 1) * factor <= start + offset + length;
                    ASSERT_EQ(whole, block >= found.start && block < found.end())
                        << factor << ": " << start << "+" << length << ", block " << block;
                }
            }
        }
    }
}

/// Numbers of every magnitude, so that sums and products overflow often.
class AnyNumber {
public:
    std::uint64_t operator()() { return random() >> random() % 64; }

private:
    std::mt19937_64 random{20260301};
};

std::uint64_t wrapped(Wide value) {
    return static_cast<std::uint64_t>(value);
}

TEST(ScaleUp, WrapsAsUnsignedNumbersDo) {
    AnyNumber number;
    for (int round = 0; round < 1'000'000; ++round) {
        const std::uint64_t factor = number();
        const BlockRange range{number(), number()};
        const std::uint64_t offset = number();
        const BlockRange expected{wrapped((Wide{range.start} + offset) * factor),
                                  wrapped(Wide{range.length} * factor)};
        ASSERT_EQ(scaleUp(factor, range, offset), expected) << factor << " " << range.start << " " << offset;
    }
}

TEST(ScaleDown, WrapsAsUnsignedNumbersDo) {
    AnyNumber number;
    for (int round = 0; round < 1'000'000; ++round) {
        const std::uint64_t factor = number() | 1U;
        const BlockRange range{number(), number()};
        const std::uint64_t offset = number();
        const std::uint64_t roundedUp = wrapped(Wide{range.start} + offset + factor - 1);
        const std::uint64_t remainder = wrapped(Wide{range.start} + range.length) % factor;
        const std::uint64_t whole = wrapped((Wide{1} << 64U) + range.length - remainder);
        const bool negative = whole >> 63U != 0;
        const BlockRange expected{roundedUp / factor, negative ? 0 : whole / factor};
        ASSERT_EQ(scaleDown(factor, range, offset), expected)
            << factor << " " << range.start << " " << offset;
    }
}

} // namespace
} // namespace agent
