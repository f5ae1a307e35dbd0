#include "support/FatImage.h"
#include "unit/core/fs/HostileVolume.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace agent::core::fs {
namespace {

class HostileFAT : public testing::Test {
protected:
    HostileFAT() {
        for (std::uint32_t cluster = 0; cluster < 1000; cluster += 3) {
            image.setEntry(cluster + 2, test::FatImage::endOfChain);
        }
    }

    test::FatImage image{{.reservedSectors = 33}};
};

TEST_F(HostileFAT, EveryBitMayBeFlipped) {
    ASSERT_EQ(hostile::parse(image.volume), 2000);
    hostile::expectBoundedWithEachBitFlipped(image.volume, 0, 96);
    hostile::expectBoundedWithEachBitFlipped(image.volume, image.fatOffset, image.fatOffset + 16);
}

TEST_F(HostileFAT, AllFieldsMayBeNonsense) {
    std::mt19937 random(5);
    for (int round = 0; round < 20'000; ++round) {
        test::FatImage damaged({});
        for (int edit = 0; edit < 3; ++edit) {
            const std::uint64_t offset = 11 + random() % 33;
            const std::uint64_t value = random() % 3 == 0 ? 0xFFFFFFFFU >> random() % 32 : random();
            damaged.volume.writeLittle(offset, value, 1 + random() % 4);
        }
        ASSERT_TRUE(hostile::isBounded(damaged.volume)) << round;
    }
}

} // namespace
} // namespace agent::core::fs
