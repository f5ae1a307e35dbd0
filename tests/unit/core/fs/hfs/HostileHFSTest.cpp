#include "support/HfsImage.h"
#include "unit/core/fs/HostileVolume.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace agent::core::fs {
namespace {

using test::HfsImage;

HfsImage::Geometry bitmapInPieces() {
    HfsImage::Geometry geometry{.blockSize = 512, .totalBlocks = 7000 * 8, .bitmap = {}, .tree = {{600, 8}}};
    for (std::uint32_t i = 0; i < 14; ++i) {
        geometry.bitmap.emplace_back(10 + 3 * i, 1);
    }
    return geometry;
}

/// An image whose bitmap has extents in a tree of two levels.
struct TreeImage : HfsImage {
    TreeImage() : HfsImage(bitmapInPieces()) {
        setNode(1, index, {child(2), child(3)});
        setNode(2, leaf, {extentsOf(5, 8, {{9000, 1}}), bitmapFrom(8)});
        setNode(3, leaf, {extentsOf(20, 8, {{9001, 1}})});
    }
};

class HostileHFS : public testing::Test {
protected:
    TreeImage image;
};

TEST_F(HostileHFS, EveryBitMayBeFlipped) {
    ASSERT_EQ(hostile::parse(image.volume), 1024 * 8);
    hostile::expectBoundedWithEachBitFlipped(image.volume, 0, 512);
    hostile::expectBoundedWithEachBitFlipped(image.volume, image.node(0), image.node(0) + 120);
    hostile::expectBoundedWithEachBitFlipped(image.volume, image.node(1), image.node(4));
}

TEST_F(HostileHFS, AllFieldsMayBeNonsense) {
    std::mt19937 random(5);
    for (int round = 0; round < 5'000; ++round) {
        TreeImage damaged;
        for (int edit = 0; edit < 3; ++edit) {
            const std::uint64_t offset = 4 + 4 * (random() % 66);
            const std::uint64_t value = random() % 3 == 0 ? 0xFFFFFFFFU >> random() % 32 : random();
            damaged.set(offset, value);
        }
        ASSERT_TRUE(hostile::isBounded(damaged.volume)) << round;
    }
}

TEST_F(HostileHFS, NodesMayBeNonsense) {
    std::mt19937 random(6);
    for (int round = 0; round < 5'000; ++round) {
        TreeImage damaged;
        for (int edit = 0; edit < 4; ++edit) {
            const std::uint64_t node = damaged.node(random() % 4);
            const std::uint64_t near = random() % 2 == 0 ? random() % 40 : 512 - 2 - random() % 12;
            damaged.volume.writeBig(node + near, random() >> random() % 32, 2);
        }
        ASSERT_TRUE(hostile::isBounded(damaged.volume)) << round;
    }
}

} // namespace
} // namespace agent::core::fs
