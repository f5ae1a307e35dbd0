#include "unit/core/fs/HostileVolume.h"

#include "support/MemoryVolume.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace agent::core::fs {
namespace {

TEST(HostileVolume, RandomBytesAreBounded) {
    std::mt19937 random(9);
    test::MemoryVolume volume(64UL * 1024);
    for (int round = 0; round < 300; ++round) {
        for (std::uint64_t offset = 0; offset < volume.size; ++offset) {
            volume.at(offset) = static_cast<std::uint8_t>(random());
        }
        volume.writeLittle(1024 + 56, round % 2 == 0 ? 0xEF53 : 0, 2);
        volume.writeBig(0, 0x58465342, 4);
        ASSERT_TRUE(hostile::isBounded(volume));
    }
}

} // namespace
} // namespace agent::core::fs
