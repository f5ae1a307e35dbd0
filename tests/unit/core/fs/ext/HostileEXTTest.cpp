#include "support/ExtImage.h"
#include "unit/core/fs/HostileVolume.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace agent::core::fs {
namespace {

class HostileEXT : public testing::Test {
protected:
    HostileEXT() {
        for (std::uint32_t block = 1; block < 2000; block += 3) {
            image.setUsed(block);
        }
        image.setUninitialized(2);
    }

    test::ExtImage image{
        {.logBlockSize = 0, .blocksPerGroup = 512, .blockCount = 2000, .descriptorSize = 64}};
};

TEST_F(HostileEXT, EveryBitMayBeFlipped) {
    ASSERT_EQ(hostile::parse(image.volume), 2000);
    hostile::expectBoundedWithEachBitFlipped(image.volume, 1024, 1024 + 400);
    hostile::expectBoundedWithEachBitFlipped(image.volume, image.descriptor(0), image.descriptor(4));
}

TEST_F(HostileEXT, AllFieldsMayBeNonsense) {
    std::mt19937 random(3);
    for (int round = 0; round < 5'000; ++round) {
        test::ExtImage damaged(
            {.logBlockSize = 0, .blocksPerGroup = 512, .blockCount = 2000, .descriptorSize = 64});
        for (int edit = 0; edit < 3; ++edit) {
            const std::uint64_t offset = 1024 + 4 * (random() % 90);
            const std::uint64_t value = random() % 3 == 0 ? 0xFFFFFFFFU >> random() % 32 : random();
            if (offset != 1024 + 56) {
                damaged.volume.writeLittle(offset, value, 4);
            }
        }
        ASSERT_TRUE(hostile::isBounded(damaged.volume)) << round;
    }
}

} // namespace
} // namespace agent::core::fs
