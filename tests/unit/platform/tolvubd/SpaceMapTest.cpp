#include "SpaceMap.h"

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

/// A small volume, made field by field.
class TestVolume {
public:
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
        return readSpaceMap(file, volumeSize);
    }

private:
    std::vector<std::byte> bytes = std::vector<std::byte>(volumeSize);
};

/// Blocks of 1 KiB from block 1 on, in two groups of 32.
TestVolume extVolume() {
    TestVolume volume;
    const std::vector<std::array<std::uint64_t, 3>> fields = {
        {4, 4, 64}, {20, 4, 1}, {32, 4, 32}, {56, 2, 0xEF53}};
    for (const auto& [offset, width, number] : fields) {
        volume.little(1024 + offset, width, number);
    }
    volume.little(2048, 4, 3);      // the bitmap of the first group
    volume.little(2048 + 32, 4, 4); // and of the second
    volume.little(3UL * 1024, 4, 0x0000000F);
    volume.little(4UL * 1024, 4, 0xC0000001); // the last bit is behind the volume's end
    return volume;
}

/// Two groups of 8 and 7 blocks of 4 KiB. The first has a tree of two levels.
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
        // The first group: root and levels, and a list that goes around the end of its 119 entries.
        {512, 4, 0x58414746},
        {528, 4, 1},
        {540, 4, 2},
        {552, 4, 118},
        {556, 4, 0},
        {560, 4, 2},
        {1536 + 36 + 472, 4, 6},
        {1536 + 36, 4, 7},
        // The second one: a root that is a leaf, and an empty list.
        {32768 + 512, 4, 0x58414746},
        {32768 + 528, 4, 1},
        {32768 + 540, 4, 1},
        {32768 + 556, 4, 118},
        // Its leaf, with one extent.
        {36864, 4, 0x41423342},
        {36870, 2, 1},
        {36872, 8, ~std::uint64_t{0}},
        {36864 + 56, 4, 5},
        {36864 + 60, 4, 2},
        // The first one's node, whose leaves are the blocks 2 and 3.
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

// The flag of a group is a leftover where descriptors have no checksums.
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
