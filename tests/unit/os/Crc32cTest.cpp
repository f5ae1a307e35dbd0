#include "os/Crc32c.h"

#include "support/CrcByDefinition.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace os {
namespace {

struct Way {
    std::string name;
    Crc32cFunction sum;
};

/// All implementations that this machine's processor supports. The table-driven one works on every machine.
std::vector<Way> ways() {
    std::vector<Way> known{{"chosen", crc32c}, {"by tables", crc32cByTables}};
    if (const Crc32cFunction byInstruction = crc32cByInstruction()) {
        known.push_back({"by instruction", byInstruction});
    }
    return known;
}

std::vector<std::byte> randomBytes(std::size_t count, std::mt19937& random) {
    std::vector<std::byte> bytes(count);
    for (std::byte& byte : bytes) {
        byte = static_cast<std::byte>(random() & 0xffU);
    }
    return bytes;
}

TEST(Crc32c, IsTheOneThatEverybodyMeans) {
    for (const Way& way : ways()) {
        const auto sumOf = [&way](std::string_view text) { return way.sum(std::as_bytes(std::span(text))); };
        EXPECT_EQ(sumOf(""), 0U) << way.name;
        EXPECT_EQ(sumOf("a"), 0xc1d04330U) << way.name;
        EXPECT_EQ(sumOf("123456789"), 0xe3069283U) << way.name;
        EXPECT_EQ(sumOf(std::string(32, '\0')), 0x8a9136aaU) << way.name;
    }
}

TEST(Crc32c, IsTheSameEachWayForRandomBytesOfAnyLengthAtAnyAddress) {
    std::mt19937 random(20261122);
    const std::vector<std::byte> bytes = randomBytes(100000, random);
    for (int round = 0; round < 400; ++round) {
        const std::size_t start = random() % 64;
        const std::size_t length = random() % (round % 8 == 0 ? bytes.size() - start : 64);
        const std::span<const std::byte> part = std::span(bytes).subspan(start, length);
        const std::uint32_t expected = agent::test::crcByDefinition(agent::test::castagnoli, part);
        for (const Way& way : ways()) {
            ASSERT_EQ(way.sum(part), expected) << way.name << ", " << start << "+" << length;
        }
    }
}

} // namespace
} // namespace os
