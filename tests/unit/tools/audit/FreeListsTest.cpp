#include "tools/bek-audit/FreeLists.h"

#include "support/MemoryVolume.h"

#include <gtest/gtest.h>

namespace audit {
namespace {

constexpr std::uint64_t blockSize = 4096;
constexpr std::uint64_t groupBlocks = 1000;
constexpr std::uint64_t sector = 512;
constexpr std::uint64_t header = 36;
constexpr unsigned word = 4;

class FreeListsTest : public testing::Test {
protected:
    FreeListsTest() {
        volume.writeBig(0, 0x58465342, word);
        volume.writeBig(4, blockSize, word);
        volume.writeBig(84, groupBlocks, word);
        volume.writeBig(88, 2, word);
        volume.writeBig(100, 5, 2);
        volume.writeBig(102, sector, 2);
    }

    void setList(std::uint64_t group, std::uint64_t first, std::uint64_t last, std::uint64_t count) {
        const std::uint64_t begin = group * groupBlocks * blockSize;
        volume.writeBig(begin + sector, 0x58414746, word);
        volume.writeBig(begin + sector + 40, first, word);
        volume.writeBig(begin + sector + 44, last, word);
        volume.writeBig(begin + sector + 48, count, word);
    }
    void setEntry(std::uint64_t group, std::uint64_t index, std::uint64_t block) {
        volume.writeBig(group * groupBlocks * blockSize + 3 * sector + header + word * index, block, word);
    }
    static std::uint64_t placeOf(std::uint64_t group, std::uint64_t block) {
        return (group * groupBlocks + block) * blockSize;
    }

    agent::test::MemoryVolume volume{2 * groupBlocks * blockSize};
};

TEST_F(FreeListsTest, HaveTheBlocksOfTheirGroup) {
    setList(0, 1, 2, 2);
    setEntry(0, 0, 7);
    setEntry(0, 1, 8);
    setEntry(0, 2, 9);
    setList(1, 0, 0, 1);
    setEntry(1, 0, 30);
    FreeLists lists(volume);
    EXPECT_FALSE(lists.hasBlockAt(placeOf(0, 7)));
    EXPECT_TRUE(lists.hasBlockAt(placeOf(0, 8)));
    EXPECT_TRUE(lists.hasBlockAt(placeOf(0, 9)));
    EXPECT_TRUE(lists.hasBlockAt(placeOf(1, 30)));
    EXPECT_FALSE(lists.hasBlockAt(placeOf(1, 8)));
}

TEST_F(FreeListsTest, AreRings) {
    const std::uint64_t entries = (sector - header) / word;
    setList(0, entries - 1, 0, 2);
    setEntry(0, entries - 1, 5);
    setEntry(0, 0, 6);
    FreeLists lists(volume);
    EXPECT_TRUE(lists.hasBlockAt(placeOf(0, 5)));
    EXPECT_TRUE(lists.hasBlockAt(placeOf(0, 6)));
}

TEST_F(FreeListsTest, AreEmptyWhereNothingMakesSense) {
    FreeLists unmarked(volume); // no group has the magic number
    EXPECT_FALSE(unmarked.hasBlockAt(placeOf(0, 0)));
    setList(0, 0xFFFFFFFF, 0, 0xFFFFFFFF);
    setEntry(0, 0, 5);
    FreeLists lists(volume);
    EXPECT_FALSE(lists.hasBlockAt(placeOf(0, 999)));
    volume.writeBig(84, 0, word);
    EXPECT_FALSE(FreeLists(volume).hasBlockAt(placeOf(0, 5)));
    volume.writeBig(0, 0, word);
    EXPECT_FALSE(FreeLists(volume).hasBlockAt(placeOf(0, 5)));
}

} // namespace
} // namespace audit
