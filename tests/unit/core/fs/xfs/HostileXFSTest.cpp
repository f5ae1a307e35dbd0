#include "support/XfsImage.h"
#include "unit/core/fs/HostileVolume.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace agent::core::fs {
namespace {

class HostileXFS : public testing::Test {
protected:
    HostileXFS() {
        image.setRoot(0, 10);
        image.setInternal(0, 10, 2, {11, 12});
        image.setInternal(0, 11, 1, {21, 22}, 12);
        image.setInternal(0, 12, 1, {23});
        for (std::uint32_t leaf = 21; leaf <= 23; ++leaf) {
            image.setLeaf(0, leaf, {{leaf * 10, 3}}, leaf == 23 ? test::XfsImage::none : leaf + 1);
        }
        image.setFreeList(0, 1, 3, 3);
        for (std::uint32_t index = 1; index <= 3; ++index) {
            image.setFreeListEntry(0, index, 300 + index);
        }
    }

    [[nodiscard]] std::uint64_t node(std::uint32_t block) const { return image.address(0, block); }

    test::XfsImage image{{.blockSize = 512, .agBlocks = 1000, .agCount = 2, .totalBlocks = 2000}};
};

TEST_F(HostileXFS, EveryBitMayBeFlipped) {
    ASSERT_EQ(hostile::parse(image.volume), 2000);
    hostile::expectBoundedWithEachBitFlipped(image.volume, 0, 104);
    hostile::expectBoundedWithEachBitFlipped(image.volume, 512, 512 + 64);
    hostile::expectBoundedWithEachBitFlipped(image.volume, image.freeListEntry(0, 0),
                                             image.freeListEntry(0, 5));
    for (const std::uint32_t block : {10U, 11U, 12U}) {
        hostile::expectBoundedWithEachBitFlipped(image.volume, node(block), node(block) + 512);
    }
    hostile::expectBoundedWithEachBitFlipped(image.volume, node(21), node(21) + 72);
    hostile::expectBoundedWithEachBitFlipped(image.volume, node(23), node(23) + 72);
}

// Any node may point to any other, at any level.
TEST_F(HostileXFS, TreesMayBeTangledInAnyWay) {
    std::mt19937 random(5);
    for (int round = 0; round < 5'000; ++round) {
        for (std::uint32_t block = 10; block < 18; ++block) {
            const std::uint32_t sibling =
                random() % 3 == 0 ? test::XfsImage::none : 10 + static_cast<std::uint32_t>(random() % 8);
            const auto level = static_cast<std::uint16_t>(random() % 3);
            if (level == 0) {
                image.setLeaf(0, block, {{500, 10}}, sibling);
            } else {
                image.setInternal(0, block, level, {10 + static_cast<std::uint32_t>(random() % 8)}, sibling);
            }
        }
        ASSERT_TRUE(hostile::isBounded(image.volume)) << round;
        ASSERT_LT(image.volume.requests.size(), 100U) << "nodes were read again and again";
    }
}

} // namespace
} // namespace agent::core::fs
