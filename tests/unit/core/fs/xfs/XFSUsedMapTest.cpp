#include "core/fs/xfs/XFSUsedMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

namespace agent::core::fs {
namespace {

using Map = std::vector<std::uint8_t>;

struct Extent {
    std::uint64_t block;
    std::uint64_t count;
};

/// Reference implementation, one block at a time: marks all blocks before `usedEnd` as used, then clears the
/// free runs.
Map referenceMap(std::size_t bytes, std::uint64_t firstBlock, std::uint64_t usedEnd,
                 const std::vector<Extent>& runs) {
    Map map(bytes, 0);
    for (std::uint64_t block = firstBlock; block < usedEnd; ++block) {
        const bool isFree = std::any_of(runs.begin(), runs.end(), [block](const Extent& run) {
            return block >= run.block && block < run.block + run.count;
        });
        const std::uint64_t bit = block - firstBlock;
        map[bit / 8] |= static_cast<std::uint8_t>((isFree ? 0U : 1U) << (bit % 8));
    }
    return map;
}

/// Free runs may come in any order; ascending order, the usual one, takes another path through the code.
TEST(XFSUsedMapTest, IsTheSameInWhateverOrderFreeBlocksCome) {
    std::mt19937_64 random(1);
    for (int round = 0; round < 30'000; ++round) {
        const std::size_t bytes = 1 + random() % 40;
        const std::uint64_t firstBlock = 8 * (random() % 20);
        const std::size_t usedBytes = random() % (bytes + 1);
        const std::uint64_t usedEnd = firstBlock + usedBytes * 8;
        std::vector<Extent> runs(static_cast<std::size_t>(random() % 8));
        for (Extent& run : runs) {
            run.block = random() % (usedEnd + 1);
            run.count = std::min(random() % 50, usedEnd - run.block);
        }
        if (round % 2 == 0) {
            std::sort(runs.begin(), runs.end(),
                      [](const Extent& one, const Extent& other) { return one.block < other.block; });
        }
        Map made(bytes, 0xa5);
        XFSUsedMap map(made.data(), bytes, firstBlock);
        for (const Extent& run : runs) {
            map.markFree(run.block, run.count);
        }
        map.finish(usedBytes);
        ASSERT_EQ(made, referenceMap(bytes, firstBlock, usedEnd, runs)) << round;
    }
}

TEST(XFSUsedMapTest, PassesOverWhatTheBufferDoesNotCover) {
    Map made(2, 0xa5);
    XFSUsedMap map(made.data(), made.size(), 80);
    map.markFree(0, 80);
    map.markFree(76, 6);
    map.markFree(92, 400);
    map.markFree(96, 8);
    map.finish(2);
    EXPECT_EQ(made, (Map{0xfc, 0x0f}));
    EXPECT_EQ(map.firstBlock(), 80U);
    EXPECT_EQ(map.endBlock(), 96U);
}

} // namespace
} // namespace agent::core::fs
