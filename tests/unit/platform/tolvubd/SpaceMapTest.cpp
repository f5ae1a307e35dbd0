#include "capture/SpaceMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <sys/mman.h>
#include <utility>
#include <vector>

namespace tolvubd {
namespace {

using Used = std::vector<bool>;

constexpr std::uint64_t volumeSize = std::uint64_t{64} << 10;

/// A small volume, built field by field.
class TestVolume {
public:
    explicit TestVolume(std::uint64_t size = volumeSize) : size(size), bytes(size) {}

    void little(std::size_t offset, std::size_t width, std::uint64_t number) {
        for (std::size_t index = 0; index < width; ++index) {
            bytes[offset + index] = static_cast<std::byte>(number >> 8 * index);
        }
    }
    void big(std::size_t offset, std::size_t width, std::uint64_t number) {
        for (std::size_t index = 0; index < width; ++index) {
            bytes[offset + index] = static_cast<std::byte>(number >> 8 * (width - 1 - index));
        }
    }
    void flip(std::size_t offset) { bytes[offset] ^= std::byte{0xFF}; }
    void truncate(std::size_t size) { bytes.resize(size); }

    [[nodiscard]] std::optional<SpaceMap> read() const {
        const os::FileDescriptor file(::memfd_create("volume", MFD_CLOEXEC));
        writeAt(file, bytes, 0);
        return readSpaceMap(file, size);
    }

private:
    std::uint64_t size;
    std::vector<std::byte> bytes;
};

/// Blocks of 1 KiB from block 1 on, in two groups of 32 blocks.
TestVolume extVolume() {
    TestVolume volume;
    const std::vector<std::array<std::uint64_t, 3>> fields = {
        {4, 4, 64}, {20, 4, 1}, {32, 4, 32}, {56, 2, 0xEF53}};
    for (const auto& [offset, width, number] : fields) {
        volume.little(1024 + offset, width, number);
    }
    volume.little(2048, 4, 3);      // block of the first group's bitmap
    volume.little(2048 + 32, 4, 4); // block of the second group's bitmap
    volume.little(3UL * 1024, 4, 0x0000000F);
    volume.little(4UL * 1024, 4, 0xC0000001); // the last bit is past the volume's end
    return volume;
}

/// Two allocation groups of 8 and 7 blocks of 4 KiB. The first one has a tree of two levels.
TestVolume xfsVolume() {
    TestVolume volume;
    const std::vector<std::array<std::uint64_t, 3>> fields = {
        {0, 4, 0x58465342},
        {4, 4, 4096},
        {8, 8, 15},
        {84, 4, 8},
        {88, 4, 2},
        {100, 2, 0xB4A5},
        {102, 2, 512},
        // The first group: root and levels, and a free list that wraps around the end of its 119 entries.
        {512, 4, 0x58414746},
        {528, 4, 1},
        {540, 4, 2},
        {552, 4, 118},
        {556, 4, 0},
        {560, 4, 2},
        {1536 + 36 + 472, 4, 6},
        {1536 + 36, 4, 7},
        // The second group: a root that is a leaf, and an empty free list.
        {32768 + 512, 4, 0x58414746},
        {32768 + 528, 4, 1},
        {32768 + 540, 4, 1},
        {32768 + 556, 4, 118},
        // The second group's leaf, with one extent.
        {36864, 4, 0x41423342},
        {36870, 2, 1},
        {36872, 8, ~std::uint64_t{0}},
        {36864 + 56, 4, 5},
        {36864 + 60, 4, 2},
        // The first group's root node, whose leaves are blocks 2 and 3.
        {4096, 4, 0x41423342},
        {4100, 2, 1},
        {4102, 2, 2},
        {4096 + 56 + 336 * 8, 4, 2},
        {8192, 4, 0x41423342},
        {8198, 2, 1},
        {8204, 4, 3},
        {8192 + 56, 4, 4},
        {8192 + 60, 4, 1},
        {12288, 4, 0x41423342},
        {12294, 2, 1},
        {12300, 4, 0xFFFFFFFF},
        {12288 + 56, 4, 5},
        {12288 + 60, 4, 1},
    };
    for (const auto& [offset, width, number] : fields) {
        volume.big(offset, width, number);
    }
    return volume;
}

/// Offsets within the NTFS volume below.
constexpr std::size_t tableRecord = 2048;
constexpr std::size_t bitmapRecord = 22528;
constexpr std::size_t bitmap = 30720;
constexpr std::size_t secondBitmap = 31744;
constexpr std::size_t dataAttribute = 80;
constexpr std::size_t runList = dataAttribute + 64;

/// A record of 1 KiB: a resident attribute, then the data attribute with two runs, whose lengths and offsets
/// have one byte each.
void addRecord(TestVolume& volume, std::size_t at, std::uint64_t dataSize,
               std::array<std::uint64_t, 4> runs) {
    const std::vector<std::array<std::uint64_t, 3>> fields = {
        {0, 4, 0x454C4946},
        {4, 2, 48},
        {6, 2, 3},
        {20, 2, 56},
        {22, 2, 1},
        {48, 2, 0x1234}, // the update sequence, and the last two bytes of both sectors
        {50, 4, 0},
        {510, 2, 0x1234},
        {1022, 2, 0x1234},
        {56, 4, 0x10},
        {60, 4, 24},
        {dataAttribute, 4, 0x80},
        {dataAttribute + 4, 4, 80},
        {dataAttribute + 8, 1, 1},
        {dataAttribute + 32, 2, 64},
        {dataAttribute + 40, 8, 1024},
        {dataAttribute + 48, 8, dataSize},
        {dataAttribute + 56, 8, dataSize},
        {runList, 1, 0x11},
        {runList + 1, 1, runs[0]},
        {runList + 2, 1, runs[1]},
        {runList + 3, 1, 0x11},
        {runList + 4, 1, runs[2]},
        {runList + 5, 1, runs[3]},
        {dataAttribute + 80, 4, 0xFFFFFFFF}};
    for (const auto& [offset, width, number] : fields) {
        volume.little(at + offset, width, number);
    }
}

/// 4200 clusters of 512 bytes, and some sectors after them that belong to no cluster. The MFT is at clusters
/// 4 and 40, the bitmap in clusters 60 and 62.
TestVolume ntfsVolume() {
    TestVolume volume(4210UL * 512);
    const std::vector<std::array<std::uint64_t, 3>> fields = {
        {3, 8, 0x202020205346544E}, {11, 2, 512}, {13, 1, 1}, {40, 8, 4200}, {48, 8, 4}, {64, 1, 0xF6}};
    for (const auto& [offset, width, number] : fields) {
        volume.little(offset, width, number);
    }
    addRecord(volume, tableRecord, 8192, {8, 4, 8, 36});
    addRecord(volume, bitmapRecord, 528, {1, 60, 1, 2});
    for (std::size_t byte = 0; byte < 512; byte += 8) {
        volume.little(bitmap + byte, 8, ~std::uint64_t{0});
    }
    volume.little(bitmap, 1, 0xF5);
    volume.little(secondBitmap, 8, 0xFFFFFFFFFFFFFFFE);
    volume.little(secondBitmap + 8, 8, 0xFFFFFF7FFFFFFFFF); // bit 39 of this word is cluster 4199
    return volume;
}

Used except(std::size_t blocks, const std::vector<std::size_t>& free) {
    Used used(blocks, true);
    for (const std::size_t block : free) {
        used[block] = false;
    }
    return used;
}

TEST(SpaceMap, FollowsTheBitmapsOfExt) {
    const auto map = extVolume().read();
    ASSERT_TRUE(map);
    Used expected(64);
    for (const std::size_t block : {1, 2, 3, 4, 33, 63}) {
        expected[block] = true;
    }
    EXPECT_EQ(map->blockSize, 1024U);
    EXPECT_EQ(map->used, expected);
}

TEST(SpaceMap, FindsNothingOfUseInAGroupWhoseBitmapWasNeverWritten) {
    TestVolume volume = extVolume();
    volume.little(2048 + 32 + 18, 2, 2);
    for (const std::uint64_t feature : {0x10U, 0x400U}) {
        volume.little(1024 + 100, 4, feature);
        const auto map = volume.read();
        ASSERT_TRUE(map);
        EXPECT_EQ(std::ranges::count(map->used, true), 4);
        EXPECT_FALSE(map->used[33]);
    }
}

// Without descriptor checksums, the flag of a group is stale.
TEST(SpaceMap, ReadsTheBitmapOfAGroupWhoseFlagDoesNotCount) {
    TestVolume volume = extVolume();
    volume.little(2048 + 32 + 18, 2, 2);
    const auto map = volume.read();
    ASSERT_TRUE(map);
    EXPECT_EQ(map->used, extVolume().read()->used);
}

TEST(SpaceMap, FollowsTheTreesAndListsOfXfs) {
    const auto map = xfsVolume().read();
    ASSERT_TRUE(map);
    EXPECT_EQ(map->blockSize, 4096U);
    EXPECT_EQ(map->used, except(15, {4, 5, 6, 7, 13, 14}));
}

TEST(SpaceMap, FollowsTheRunsOfNtfs) {
    const auto map = ntfsVolume().read();
    ASSERT_TRUE(map);
    EXPECT_EQ(map->blockSize, 512U);
    EXPECT_EQ(map->used, except(4200, {1, 3, 4096, 4199}));
}

// A negative size of clusters or records is the negated exponent of a power of two.
TEST(SpaceMap, UnderstandsTheSizesOfNtfs) {
    for (const std::uint64_t inClusters : {0xF6, 2}) {
        TestVolume volume = ntfsVolume();
        volume.little(64, 1, inClusters);
        EXPECT_TRUE(volume.read()) << inClusters;
    }
    for (const std::uint64_t unknown : {0, 1, 3, 0x80, 0xEA, 0xEE, 0xFA}) {
        TestVolume volume = ntfsVolume();
        volume.little(64, 1, unknown);
        EXPECT_FALSE(volume.read()) << unknown;
    }
}

// With any of these, a used block would count as free, or bytes would be read that don't exist.
TEST(SpaceMap, IsNoneForNtfsInDoubt) {
    const std::vector<std::array<std::uint64_t, 3>> doubts = {
        {11, 2, 0},
        {11, 2, 768},
        {13, 1, 0},
        {13, 1, 3},
        {13, 1, 0xFF},
        {40, 8, 4211},
        {40, 8, ~std::uint64_t{0}},
        {48, 8, 4200},
        {48, 8, 5},
        {tableRecord + 48, 2, 0x4321},
        {tableRecord + 510, 2, 0},
        {tableRecord + 6, 2, 2},
        {tableRecord + 22, 2, 0},
        {tableRecord + 32, 8, 5},
        {tableRecord + runList + 1, 1, 0},
        {tableRecord + runList + 5, 1, 35},
        {bitmapRecord, 4, 0},
        {bitmapRecord + 4, 2, 0xFFFF},
        {bitmapRecord + 20, 2, 0xFFFF},
        {bitmapRecord + 60, 4, 0},
        {bitmapRecord + 60, 4, 0xFFFFFFF0},
        {bitmapRecord + dataAttribute, 4, 0x90},
        {bitmapRecord + dataAttribute + 4, 4, 63},
        {bitmapRecord + dataAttribute + 8, 1, 0},
        {bitmapRecord + dataAttribute + 9, 1, 1},
        {bitmapRecord + dataAttribute + 12, 2, 0x8000},
        {bitmapRecord + dataAttribute + 16, 8, 1},
        {bitmapRecord + dataAttribute + 32, 2, 80},
        {bitmapRecord + dataAttribute + 48, 8, 524},
        {bitmapRecord + dataAttribute + 56, 8, 520},
        {bitmapRecord + runList, 1, 0x01}, // a hole
        {bitmapRecord + runList, 1, 0x18},
        {bitmapRecord + runList, 1, 0x81},
        {bitmapRecord + runList, 1, 0xF1},
        {bitmapRecord + runList + 2, 1, 0xFF}, // before the first cluster
        {bitmapRecord + runList + 3, 1, 0},    // the second cluster is missing
    };
    for (const auto& [offset, width, number] : doubts) {
        TestVolume volume = ntfsVolume();
        volume.little(offset, width, number);
        EXPECT_FALSE(volume.read()) << offset << " " << number;
    }
}

TEST(SpaceMap, StandsAnyFlippedByteAndAnyEndOfNtfs) {
    const Used whole = ntfsVolume().read()->used;
    for (const std::size_t begin : {std::size_t{0}, tableRecord, bitmapRecord}) {
        for (std::size_t offset = begin; offset < begin + 240; ++offset) {
            TestVolume flipped = ntfsVolume();
            flipped.flip(offset);
            const auto map = flipped.read();
            EXPECT_TRUE(!map || map->used.size() * map->blockSize <= 4210UL * 512) << offset;
        }
    }
    for (std::size_t size = 0; size < 33000; size += 511) {
        TestVolume shorter = ntfsVolume();
        shorter.truncate(size);
        const auto map = shorter.read();
        EXPECT_TRUE(!map || map->used == whole) << size;
    }
}

/// Fields at these offsets get values that are unsupported or contradict other fields. Reading on regardless
/// could leave used blocks out.
TEST(SpaceMap, IsNoneForWhatItDoesNotKnow) {
    EXPECT_FALSE(TestVolume().read());
    for (const auto& [offset, number] :
         std::vector<std::pair<std::size_t, std::uint64_t>>{{1024 + 96, 0x10},
                                                            {1024 + 100, 0x200},
                                                            {1024 + 24, 7},
                                                            {1024 + 32, 0},
                                                            {1024 + 4, 65},
                                                            {2048, 64}}) {
        TestVolume volume = extVolume();
        volume.little(offset, 4, number);
        EXPECT_FALSE(volume.read()) << offset;
    }
    for (const auto& [offset, number] : std::vector<std::pair<std::size_t, std::uint64_t>>{{4, 3000},
                                                                                           {84, 0},
                                                                                           {88, 1},
                                                                                           {512, 0},
                                                                                           {528, 8},
                                                                                           {540, 0},
                                                                                           {540, 3},
                                                                                           {560, 120},
                                                                                           {552, 119},
                                                                                           {12300, 2},
                                                                                           {12288 + 60, 4},
                                                                                           {4096, 0}}) {
        TestVolume volume = xfsVolume();
        volume.big(offset, 4, number);
        EXPECT_FALSE(volume.read()) << offset;
    }
}

TEST(SpaceMap, StandsAnyFlippedByteAndAnyEnd) {
    for (const auto& make : {extVolume, xfsVolume}) {
        for (std::size_t offset = 0; offset < volumeSize; offset += offset < 4200 ? 3 : 101) {
            TestVolume flipped = make();
            flipped.flip(offset);
            const auto map = flipped.read();
            EXPECT_TRUE(!map || map->used.size() * map->blockSize <= volumeSize) << offset;
        }
        for (std::size_t size = 0; size < volumeSize; size += 511) {
            TestVolume shorter = make();
            shorter.truncate(size);
            const auto map = shorter.read();
            EXPECT_TRUE(!map || map->used == make().read()->used) << size;
        }
    }
}

} // namespace
} // namespace tolvubd
