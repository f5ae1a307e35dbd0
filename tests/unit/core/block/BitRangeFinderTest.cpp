#include "core/block/BitRangeFinder.h"

#include "core/block/BitRangeFinderFactory.h"
#include "core/block/U64RangeFinder.h"
#include "support/Messages.h"
#include "support/ReferenceRanges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <stdexcept>

namespace agent {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Ranges = std::vector<BlockRange>;
using ::testing::IsEmpty;

struct Flags {
    bool targetValue;
    bool msbFirst;
};

constexpr std::array<Flags, 4> everyFlags = {{{false, false}, {false, true}, {true, false}, {true, true}}};

Ranges find(Flags flags, const Bytes& bitmap, std::uint64_t bits) {
    // A copy that ends with the last valid bit, so that AddressSanitizer reports reads past it.
    const Bytes exact(bitmap.begin(), bitmap.begin() + static_cast<std::ptrdiff_t>((bits + 7) / 8));
    return BitRangeFinder(flags.targetValue, flags.msbFirst).findRanges(exact.data(), bits);
}

Ranges plain(Flags flags, const Bytes& bitmap, std::uint64_t bits) {
    return test::referenceBitRanges(bitmap.data(), bits, flags.targetValue, flags.msbFirst);
}

TEST(BitRangeFinder, RefusesNoBitmap) {
    const BitRangeFinder finder(true, false);
    const Bytes bitmap(8);
    EXPECT_EQ(test::messageOf<std::invalid_argument>([&] { (void)finder.findRanges(nullptr, 8); }),
              "Bad bitmap pointer passed to findRanges function");
    EXPECT_EQ(test::messageOf<std::invalid_argument>([&] { (void)finder.findRanges(bitmap.data(), 0); }),
              "Bad bitmap size passed to findRanges function (size must be > 0)");
}

TEST(BitRangeFinder, EveryLengthOfOneRun) {
    const Bytes clear(40, 0x00);
    const Bytes set(40, 0xff);
    for (const Flags flags : everyFlags) {
        for (std::uint64_t bits = 1; bits <= 320; ++bits) {
            ASSERT_EQ(find(flags, flags.targetValue ? set : clear, bits), (Ranges{{0, bits}})) << bits;
            ASSERT_THAT(find(flags, flags.targetValue ? clear : set, bits), IsEmpty()) << bits;
        }
    }
}

TEST(BitRangeFinder, PaddingOfTheLastByteIsNeverSeen) {
    EXPECT_EQ(find({true, false}, {0xfa}, 3), (Ranges{{1, 1}}));  // low bits 010
    EXPECT_EQ(find({true, true}, {0x5f}, 3), (Ranges{{1, 1}}));   // high bits 010
    EXPECT_EQ(find({false, false}, {0x05}, 3), (Ranges{{1, 1}})); // low bits 101
    EXPECT_EQ(find({false, true}, {0xa0}, 3), (Ranges{{1, 1}}));  // high bits 101
}

TEST(BitRangeFinder, RunsGoOnAcrossBytesWordsAndStrides) {
    for (const std::uint64_t seam : {8U, 56U, 64U, 128U, 512U, 576U}) {
        for (std::uint64_t bits = seam + 1; bits < seam + 130; ++bits) {
            Bytes bitmap(100);
            bitmap[seam / 8 - 1] = 0x80;
            bitmap[seam / 8] = 0x01;
            ASSERT_EQ(find({true, false}, bitmap, bits), (Ranges{{seam - 1, 2}})) << seam << " " << bits;
        }
    }
}

/// Every length, so that whole words, the bytes after them and the last partial byte occur in every
/// combination.
TEST(BitRangeFinder, AgreesWithEveryBitAtEveryLength) {
    std::mt19937_64 random(20260302);
    for (std::uint64_t bits = 1; bits <= 1300; ++bits) {
        Bytes bitmap((bits + 7) / 8);
        std::generate(bitmap.begin(), bitmap.end(), [&] { return static_cast<std::uint8_t>(random()); });
        for (const Flags flags : everyFlags) {
            ASSERT_EQ(find(flags, bitmap, bits), plain(flags, bitmap, bits)) << bits;
        }
    }
}

/// A random bitmap of runs of up to `longest` bits, which is itself random, 1 to 2048.
Bytes bitmapOfRuns(std::mt19937_64& random, std::uint64_t bits) {
    Bytes bitmap((bits + 7) / 8);
    const std::uint64_t longest = std::uint64_t{1} << random() % 12;
    bool value = (random() & 1U) != 0;
    std::uint64_t left = 0;
    for (std::uint64_t bit = 0; bit < bitmap.size() * 8; ++bit, --left) {
        if (left == 0) {
            left = 1 + random() % longest;
            value = !value;
        }
        bitmap[bit / 8] |= static_cast<std::uint8_t>((value ? 1U : 0U) << bit % 8);
    }
    return bitmap;
}

TEST(BitRangeFinder, AgreesWithEveryBitOfRandomBitmaps) {
    std::mt19937_64 random(20260303);
    std::uint64_t bitsCompared = 0;
    while (bitsCompared < 12'000'000) {
        const std::uint64_t bits = 1 + random() % (random() % 16 == 0 ? 20'000 : 700);
        const Bytes bitmap = bitmapOfRuns(random, bits);
        for (const Flags flags : everyFlags) {
            ASSERT_EQ(find(flags, bitmap, bits), plain(flags, bitmap, bits)) << bits;
        }
        bitsCompared += bits * everyFlags.size();
    }
}

TEST(BitRangeFinder, BitmapNeedsNoAlignment) {
    std::mt19937_64 random(20260304);
    const Bytes bitmap = bitmapOfRuns(random, 4096);
    for (std::size_t shift = 0; shift < 64; ++shift) {
        const std::uint64_t bits = 4096 - shift * 8;
        const BitRangeFinder finder(true, false);
        ASSERT_EQ(finder.findRanges(bitmap.data() + shift, bits),
                  test::referenceBitRanges(bitmap.data() + shift, bits, true, false));
    }
}

TEST(U64RangeFinder, RefusesNoMapButNotAnEmptyOne) {
    const U64RangeFinder finder(false);
    EXPECT_EQ(test::messageOf<std::invalid_argument>([&] { (void)finder.findRanges(nullptr, 1); }),
              "Bad usage map pointer passed to findRanges function");
    const std::uint64_t word = 0;
    EXPECT_THAT(finder.findRanges(&word, 0), IsEmpty());
}

TEST(U64RangeFinder, AnyOtherNumberEndsARunOfZeros) {
    const std::vector<std::uint64_t> words = {0, 0, 1, 0, ~std::uint64_t{0}, std::uint64_t{1} << 63U, 0};
    EXPECT_EQ(U64RangeFinder(false).findRanges(words.data(), words.size()), (Ranges{{0, 2}, {3, 1}, {6, 1}}));
    EXPECT_EQ(U64RangeFinder(true).findRanges(words.data(), words.size()), (Ranges{{2, 1}, {4, 2}}));
}

TEST(U64RangeFinder, AgreesWithEveryWordAtAnyAddress) {
    std::mt19937_64 random(20260305);
    for (int round = 0; round < 10'000; ++round) {
        const std::size_t count = 1 + random() % 300;
        Bytes map(count * 8 + 8);
        std::uint8_t* const first = map.data() + random() % 8;
        const std::uint64_t rarity = 1 + random() % 20;
        std::vector<std::uint64_t> words(count);
        for (std::uint64_t& word : words) {
            word = random() % rarity == 0 ? std::uint64_t{1} << random() % 64 : 0;
        }
        std::memcpy(first, words.data(), count * 8);
        for (const bool target : {false, true}) {
            const Ranges expected = test::referenceRuns(
                count, [&](std::uint64_t index) { return (words[index] != 0) == target; });
            ASSERT_EQ(U64RangeFinder(target).findRanges(first, count), expected) << count;
        }
    }
}

TEST(BitRangeFinderFactory, MakesWhatTheTypeSays) {
    const BitRangeFinderFactory factory;
    const std::vector<std::uint64_t> map = {0x07, 0, 5};
    EXPECT_EQ(factory.createRangeFinder(0, true, false)->findRanges(map.data(), 8), (Ranges{{0, 3}}));
    EXPECT_EQ(factory.createRangeFinder(0, true, true)->findRanges(map.data(), 8), (Ranges{{5, 3}}));
    EXPECT_EQ(factory.createRangeFinder(0, false, false)->findRanges(map.data(), 8), (Ranges{{3, 5}}));
    EXPECT_EQ(factory.createRangeFinder(1, true, true)->findRanges(map.data(), 3), (Ranges{{0, 1}, {2, 1}}));
    EXPECT_EQ(factory.createRangeFinder(1, false, false)->findRanges(map.data(), 3), (Ranges{{1, 1}}));
}

TEST(BitRangeFinderFactory, RefusesOtherTypes) {
    const BitRangeFinderFactory factory;
    for (const int type : {-1, 2, 1000}) {
        EXPECT_EQ(
            test::messageOf<std::runtime_error>([&] { (void)factory.createRangeFinder(type, true, true); }),
            "Unknown bit range finder type");
    }
}

} // namespace
} // namespace agent
