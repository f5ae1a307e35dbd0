#include "core/block/WriteBlockRanges.h"

#include "common/PosixError.h"
#include "core/block/BitRangeFinder.h"
#include "support/Messages.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <random>
#include <stdexcept>

namespace agent {
namespace {

using Ranges = std::set<BlockRange>;

struct Written {
    std::uint64_t bitsSet;
    std::string bitmap;
};

/// Writes to a file, because a string stream can't be positioned past its end.
Written write(const Ranges& ranges, std::uint64_t totalBits, std::uint64_t baseOffset, bool msbFirst) {
    const test::TestDirectory directory;
    const std::string path = directory / "bitmap";
    std::ofstream out(path, std::ios::binary);
    const std::uint64_t bitsSet = writeBlockRanges(out, ranges, totalBits, baseOffset, msbFirst);
    out.close();
    return {bitsSet, test::readFile(path)};
}

/// The bitmap that is written for `ranges`, most significant bits first.
std::string bitmapOf(const Ranges& ranges, std::uint64_t totalBits, std::uint64_t baseOffset = 0) {
    return write(ranges, totalBits, baseOffset, true).bitmap;
}

TEST(WriteBlockRanges, FileHasItsLengthBeforeAnyRange) {
    EXPECT_EQ(bitmapOf({}, 64), std::string(8, '\0'));
    EXPECT_EQ(bitmapOf({}, 8), std::string(2, '\0'));
    EXPECT_EQ(bitmapOf({}, 71), std::string(8, '\0'));
    EXPECT_EQ(bitmapOf({}, 72), std::string(10, '\0'));
}

TEST(WriteBlockRanges, RangesWithinOneByteAreJoined) {
    EXPECT_EQ(bitmapOf({{0, 1}, {2, 2}, {7, 1}}, 8), (std::string{'\xb1', '\0'}));
    EXPECT_EQ(bitmapOf({{0, 8}}, 8), (std::string{'\xff', '\0'}));
    EXPECT_EQ(bitmapOf({{3, 4}}, 8), (std::string{'\x1e', '\0'}));
}

TEST(WriteBlockRanges, LongRangesFillTheBytesBetween) {
    EXPECT_EQ(bitmapOf({{6, 12}}, 64), (std::string{'\x03', '\xff', '\xc0', 0, 0, 0, 0, 0}));
    EXPECT_EQ(bitmapOf({{1, 2}, {6, 12}, {20, 1}}, 64), (std::string{'\x63', '\xff', '\xc8', 0, 0, 0, 0, 0}));
}

TEST(WriteBlockRanges, LongRangeThatEndsWithAByteLosesThatByte) {
    EXPECT_EQ(bitmapOf({{0, 16}}, 64), (std::string{'\xff', '\0', 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(bitmapOf({{4, 20}}, 64), (std::string{'\x0f', '\xff', '\0', 0, 0, 0, 0, 0}));
}

TEST(WriteBlockRanges, LeastSignificantBitsFirstTurnsEveryByteAround) {
    const Written written = write({{0, 1}, {2, 2}, {14, 3}}, 64, 0, false);
    EXPECT_EQ(written.bitsSet, 6U);
    EXPECT_EQ(written.bitmap, (std::string{'\x0d', '\xc0', '\x01', 0, 0, 0, 0, 0}));
}

TEST(WriteBlockRanges, BaseOffsetMovesTheBitsOnly) {
    EXPECT_EQ(bitmapOf({{0, 4}, {9, 1}}, 64, 3), (std::string{0, 0, 0, '\xf0', '\x40', 0, 0, 0}));
}

TEST(WriteBlockRanges, EmptyRangesSetNothing) {
    const Written written = write({{0, 0}, {3, 0}, {8, 0}, {8, 1}}, 64, 0, true);
    EXPECT_EQ(written.bitsSet, 1U);
    EXPECT_EQ(written.bitmap, (std::string{0, '\x80', 0, 0, 0, 0, 0, 0}));
}

TEST(WriteBlockRanges, OverlapByAByteIsRefused) {
    EXPECT_EQ(test::messageOf<std::runtime_error>([] { bitmapOf({{0, 20}, {9, 2}}, 64); }),
              "Overlapping range not supported");
}

TEST(WriteBlockRanges, WrittenRangesAreFoundAgain) {
    std::mt19937_64 random(20260306);
    for (int round = 0; round < 300; ++round) {
        Ranges ranges;
        std::uint64_t total = 0;
        std::uint64_t next = random() % 10;
        while (next < 20'000) {
            std::uint64_t length = 1 + random() % (std::uint64_t{1} << random() % 13);
            length += (next + length) % 8 == 0 && next % 8 + length > 8 ? 1 : 0;
            ranges.insert({next, length});
            total += length;
            next += length + 1 + random() % 40;
        }
        for (const bool msbFirst : {false, true}) {
            const Written written = write(ranges, 65536, 0, msbFirst);
            ASSERT_EQ(written.bitsSet, total);
            const std::vector<BlockRange> found =
                BitRangeFinder(true, msbFirst).findRanges(written.bitmap.data(), 65536);
            ASSERT_EQ(Ranges(found.begin(), found.end()), ranges);
        }
    }
}

/// A bitmap of zero bytes has no last byte to write.
TEST(WriteBlockRanges, NothingToSizeIsAnError) {
    const test::TestDirectory directory;
    std::ofstream out((directory / "bitmap").str());
    EXPECT_THROW(writeBlockRanges(out, {}, 7, 0, true), PosixError);
}

TEST(WriteBlockRanges, FailureOfTheStreamIsAnError) {
    std::ofstream out("/dev/full");
    out.rdbuf()->pubsetbuf(nullptr, 0);
    try {
        writeBlockRanges(out, {{0, 100'000}}, 1'000'000, 0, true);
        FAIL() << "nothing was thrown";
    } catch (const PosixError& error) {
        EXPECT_EQ(error.code(), ENOSPC);
        EXPECT_NE(std::string(error.what()).find("Failed to write block ranges"), std::string::npos);
    }
}

} // namespace
} // namespace agent
