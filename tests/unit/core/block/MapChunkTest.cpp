#include "core/block/MapChunk.h"

#include "core/block/BitRangeFinder.h"
#include "core/block/U64RangeFinder.h"
#include "support/ReferenceRanges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace agent::core::block {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Ranges = std::vector<BlockRange>;
using Bytes = std::vector<std::uint8_t>;

void fill(MapChunk& chunk, const Bytes& bytes) {
    chunk.setBuffer(AlignedBuffer(bytes.size(), 512));
    std::memcpy(chunk.data(), bytes.data(), bytes.size());
}

Ranges restOf(MapChunk& chunk) {
    Ranges ranges;
    for (; !chunk.atEnd(); chunk.next()) {
        ranges.push_back(chunk.current());
    }
    return ranges;
}

TEST(MapChunk, HasNoRangesWithoutABuffer) {
    const BitRangeFinder finder(true, false);
    const MapChunk chunk(finder, 1);
    EXPECT_FALSE(chunk.hasBuffer());
    EXPECT_TRUE(chunk.atEnd());
}

TEST(MapChunk, SearchesNoMoreThanItIsTold) {
    const BitRangeFinder finder(true, false);
    MapChunk chunk(finder, 1);
    fill(chunk, {0xff, 0xff});
    EXPECT_EQ(chunk.capacity(), 16U);
    chunk.search(11);
    EXPECT_THAT(restOf(chunk), ElementsAre(BlockRange{0, 11}));
    chunk.search(3);
    EXPECT_THAT(restOf(chunk), ElementsAre(BlockRange{0, 3}));
}

TEST(MapChunk, WordsAreElementsToo) {
    const U64RangeFinder finder(false);
    MapChunk chunk(finder, 64);
    fill(chunk, Bytes(40));
    EXPECT_EQ(chunk.capacity(), 5U);
    chunk.data()[17] = 1;
    chunk.search(5);
    EXPECT_THAT(restOf(chunk), ElementsAre(BlockRange{0, 2}, BlockRange{3, 2}));
}

/// A bitmap of many slices. Its runs are one bit to several slices long, and some end exactly where a slice
/// ends.
Bytes bitmapOfSlices(std::mt19937_64& random) {
    Bytes bitmap(400'000 + random() % 100'000);
    std::size_t byte = 0;
    while (byte < bitmap.size()) {
        const std::size_t length = random() % 3 == 0 ? 1 + random() % 100'000 : 1 + random() % 5000;
        const std::size_t end =
            std::min(bitmap.size(), random() % 4 == 0 ? (byte / 32768 + 1) * 32768 : byte + length);
        const std::uint64_t kind = random() % 3;
        for (; byte < end; ++byte) {
            bitmap[byte] = static_cast<std::uint8_t>(kind == 2 ? random() : kind * 0xff);
        }
    }
    return bitmap;
}

TEST(MapChunk, RangesAreThoseOfTheWholeAtOnce) {
    std::mt19937_64 random(20260309);
    for (int round = 0; round < 8; ++round) {
        const Bytes bitmap = bitmapOfSlices(random);
        const std::uint64_t bits = bitmap.size() * 8 - random() % 64;
        const BitRangeFinder finder(round % 2 == 0, round % 4 < 2);
        MapChunk chunk(finder, 1);
        fill(chunk, bitmap);
        chunk.search(bits);
        ASSERT_EQ(restOf(chunk), finder.findRanges(bitmap.data(), bits)) << round;
    }
}

TEST(MapChunk, RangeOfManySlicesIsOne) {
    const BitRangeFinder finder(false, false);
    MapChunk chunk(finder, 1);
    fill(chunk, Bytes(1'000'000));
    chunk.search(8'000'000);
    EXPECT_THAT(restOf(chunk), ElementsAre(BlockRange{0, 8'000'000}));
    std::fill_n(chunk.data(), 1'000'000, std::uint8_t{0xff});
    chunk.search(8'000'000);
    EXPECT_THAT(restOf(chunk), IsEmpty());
}

TEST(MapChunk, CopyGoesOnByItself) {
    std::mt19937_64 random(20260310);
    const Bytes bitmap = bitmapOfSlices(random);
    const BitRangeFinder finder(true, false);
    const Ranges all = finder.findRanges(bitmap.data(), bitmap.size() * 8);
    MapChunk chunk(finder, 1);
    fill(chunk, bitmap);
    chunk.search(bitmap.size() * 8);
    for (std::size_t taken = 0; taken < all.size() / 3; ++taken) {
        chunk.next();
    }
    MapChunk copy(finder, 1);
    copy = chunk;
    const Ranges rest(all.begin() + static_cast<std::ptrdiff_t>(all.size() / 3), all.end());
    std::fill_n(chunk.data(), bitmap.size(), std::uint8_t{0});
    EXPECT_EQ(restOf(copy), rest);
}

} // namespace
} // namespace agent::core::block
