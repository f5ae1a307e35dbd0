#include "core/fs/Bits.h"

#include "core/fs/ByteOrder.h"
#include "os/AlignedBuffer.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace agent::core::fs {
namespace {

using Map = std::vector<std::uint8_t>;

bool bit(const Map& map, std::uint64_t index) {
    return (map[index / 8] >> (index % 8) & 1) != 0;
}

void referenceCopy(Map& target, std::uint64_t targetBit, const Map& source, std::uint64_t sourceBit,
                   std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i) {
        if (bit(source, sourceBit + i)) {
            target[(targetBit + i) / 8] |= static_cast<std::uint8_t>(1U << ((targetBit + i) % 8));
        }
    }
}

void referenceClear(Map& map, std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t index = first; index < first + count; ++index) {
        map[index / 8] &= static_cast<std::uint8_t>(~(1U << (index % 8)));
    }
}

void referenceSet(Map& map, std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t index = first; index < first + count; ++index) {
        map[index / 8] |= static_cast<std::uint8_t>(1U << (index % 8));
    }
}

/// The private anonymous memory of this process. The kernel's shared page of zeros doesn't count.
std::size_t ownKibibytes() {
    std::ifstream status("/proc/self/status");
    std::string word;
    std::size_t kibibytes = 0;
    while (status >> word && word != "RssAnon:") {
    }
    EXPECT_TRUE(status >> kibibytes);
    return kibibytes;
}

class Random {
public:
    std::uint64_t below(std::uint64_t limit) { return generator() % limit; }

    Map map(std::uint64_t bits) {
        Map bytes((bits + 7) / 8);
        for (std::uint8_t& byte : bytes) {
            byte = static_cast<std::uint8_t>(generator());
        }
        return bytes;
    }

private:
    std::mt19937_64 generator{20240501};
};

// Buffers end with the last bit that may be accessed, so that AddressSanitizer reports any byte beyond.
TEST(Bits, CopyIsThatOfOneBitAtATime) {
    Random random;
    for (int round = 0; round < 200'000; ++round) {
        const std::uint64_t count = random.below(round % 100 == 0 ? 5000 : 300);
        const std::uint64_t targetBit = random.below(70);
        const std::uint64_t sourceBit = random.below(4) == 0 ? targetBit : random.below(70);
        const Map source = random.map(sourceBit + count);
        Map expected((targetBit + count + 7) / 8);
        Map copied = expected;
        referenceCopy(expected, targetBit, source, sourceBit, count);
        copyBits(copied.data(), targetBit, source.data(), sourceBit, count);
        ASSERT_EQ(copied, expected) << targetBit << " " << sourceBit << " " << count;
    }
}

TEST(Bits, CopyKeepsTheBitsAroundIt) {
    Random random;
    for (int round = 0; round < 100'000; ++round) {
        const std::uint64_t count = random.below(200);
        const std::uint64_t targetBit = random.below(70);
        const Map source = random.map(count + 8);
        Map expected = random.map(targetBit + count + 16);
        for (std::uint64_t i = targetBit; i < targetBit + count; ++i) {
            expected[i / 8] &= static_cast<std::uint8_t>(~(1U << (i % 8)));
        }
        Map copied = expected;
        referenceCopy(expected, targetBit, source, 3, count);
        copyBits(copied.data(), targetBit, source.data(), 3, count);
        ASSERT_EQ(copied, expected) << targetBit << " " << count;
    }
}

TEST(Bits, SettingAndClearingAreThoseOfOneBitAtATime) {
    Random random;
    for (int round = 0; round < 1'000'000; ++round) {
        const std::uint64_t count = random.below(round % 100 == 0 ? 3000 : 100);
        const std::uint64_t first = random.below(70);
        const Map before = random.map(first + count);
        Map expected = before;
        Map changed = before;
        referenceClear(expected, first, count);
        clearBits(changed.data(), first, count);
        ASSERT_EQ(changed, expected) << first << " " << count;
        expected = changed = before;
        referenceSet(expected, first, count);
        setBits(changed.data(), first, count);
        ASSERT_EQ(changed, expected) << first << " " << count;
    }
}

TEST(Bits, ClearingAMapLeavesNoBit) {
    Random random;
    for (const std::size_t bytes : {0U, 1U, 2U, 4095U, 4096U, 4097U, 20000U}) {
        Map map = random.map(bytes * 8);
        clearMap(map.data(), map.size());
        EXPECT_EQ(map, Map(bytes)) << bytes;
    }
    for (const std::size_t last : {0U, 1U, 4095U, 4096U, 9998U}) { // the only byte that needs clearing
        Map map(9999);
        map[last] = 0x80;
        clearMap(map.data(), map.size());
        EXPECT_EQ(map, Map(9999)) << last;
    }
}

TEST(Bits, ClearingAFreshBufferTakesNoMemory) {
    constexpr std::size_t bytes = std::size_t{40} * 1024 * 1024;
    os::AlignedBuffer buffer(bytes, 512);
    const std::size_t before = ownKibibytes();
    clearMap(static_cast<std::uint8_t*>(static_cast<void*>(buffer.data())), bytes);
    EXPECT_LT(ownKibibytes(), before + bytes / 1024 / 4);
}

TEST(Bits, ClearBitsAreCounted) {
    Random random;
    for (std::uint64_t bytes = 0; bytes < 200; ++bytes) {
        const Map map = random.map(bytes * 8);
        std::uint64_t count = 0;
        for (std::uint64_t index = 0; index < bytes * 8; ++index) {
            count += bit(map, index) ? 0 : 1;
        }
        EXPECT_EQ(countClearBits(map.data(), bytes), count);
    }
}

TEST(ByteOrder, ReadsBothOrdersAtAnyPlace) {
    const Map bytes{0xff, 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0};
    EXPECT_EQ(littleEndian<std::uint16_t>(bytes, 1), 0x3412U);
    EXPECT_EQ(littleEndian<std::uint32_t>(bytes, 1), 0x78563412U);
    EXPECT_EQ(littleEndian<std::uint64_t>(bytes, 1), 0xf0debc9a78563412U);
    EXPECT_EQ(bigEndian<std::uint16_t>(bytes, 1), 0x1234U);
    EXPECT_EQ(bigEndian<std::uint32_t>(bytes, 1), 0x12345678U);
    EXPECT_EQ(bigEndian<std::uint64_t>(bytes, 1), 0x123456789abcdef0U);
}

} // namespace
} // namespace agent::core::fs
