#include "core/block/BitRunTable.h"

#include "support/ReferenceRanges.h"

#include <gtest/gtest.h>

#include <string>

namespace agent {
namespace {

std::string describe(const BitRuns& row) {
    std::string text = std::to_string(row.firstBitSet) + std::to_string(row.lastBitSet);
    for (std::size_t run = 0; run < row.runs.size(); ++run) {
        text += run == row.runCount ? " |" : "";
        text += " " + std::to_string(row.runs[run].runStart) + "+" + std::to_string(row.runs[run].runLength);
    }
    return text;
}

TEST(BitRunTable, KnownRows) {
    EXPECT_EQ(describe(bitRunTable[0xb5]), "11 0+1 2+2 5+1 7+1");
    EXPECT_EQ(describe(bitRunTable[0xff]), "11 0+8 | 0+0 0+0 0+0");
    EXPECT_EQ(describe(bitRunTable[0x00]), "00 | 0+0 0+0 0+0 0+0");
    EXPECT_EQ(describe(bitRunTable[0xaa]), "10 0+1 2+1 4+1 6+1");
}

TEST(BitRunTable, EveryRowAgreesWithItsBits) {
    for (unsigned value = 0; value < 256; ++value) {
        const auto byte = static_cast<std::uint8_t>(value);
        const BitRuns& row = bitRunTable[byte];
        const std::vector<BlockRange> runs = test::referenceBitRanges(&byte, 8, true, true);
        ASSERT_EQ(row.runCount, runs.size()) << value;
        for (std::size_t run = 0; run < runs.size(); ++run) {
            ASSERT_EQ(row.runs[run].runStart, runs[run].start) << value;
            ASSERT_EQ(row.runs[run].runLength, runs[run].length) << value;
        }
        ASSERT_EQ(row.firstBitSet, test::referenceBit(&byte, 0, true) ? 1 : 0) << value;
        ASSERT_EQ(row.lastBitSet, test::referenceBit(&byte, 7, true) ? 1 : 0) << value;
    }
}

TEST(BitReversalTable, TurnsEveryByteAround) {
    EXPECT_EQ(bitReversalTable[0x01], 0x80);
    for (unsigned value = 0; value < 256; ++value) {
        const auto byte = static_cast<std::uint8_t>(value);
        const std::uint8_t reversed = bitReversalTable[byte];
        for (std::uint64_t bit = 0; bit < 8; ++bit) {
            ASSERT_EQ(test::referenceBit(&byte, bit, true), test::referenceBit(&reversed, bit, false))
                << value;
        }
    }
}

TEST(ReverseBitsOfBytes, KeepsTheOrderOfTheBytes) {
    EXPECT_EQ(reverseBitsOfBytes(0x0102040810204080), 0x8040201008040201U);
    EXPECT_EQ(reverseBitsOfBytes(0xff00000000000001), 0xff00000000000080U);
}

} // namespace
} // namespace agent
