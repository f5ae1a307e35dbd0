#include "core/checksum/BufferChecksumGeneratorFactory.h"
#include "core/checksum/BufferChecksumGeneratorGCryptCRC32.h"
#include "core/checksum/BufferChecksumGeneratorLibCRC32c.h"
#include "support/CrcByDefinition.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <span>
#include <string_view>
#include <thread>
#include <vector>

namespace agent {
namespace {

using Bytes = std::vector<unsigned char>;

std::uint32_t reference(std::uint32_t reflectedPolynomial, const unsigned char* bytes, std::size_t size) {
    return test::crcByDefinition(reflectedPolynomial, std::as_bytes(std::span(bytes, size)));
}

constexpr std::uint32_t ieee = 0xedb88320;

std::uint32_t sum(const IBufferChecksumGenerator& generator, const void* buffer, std::size_t size) {
    std::uint32_t out = 0xdeadbeef;
    EXPECT_TRUE(generator.generate(buffer, size, out));
    return out;
}

std::uint32_t crc32c(const Bytes& bytes) {
    return sum(BufferChecksumGeneratorLibCRC32c(), bytes.data(), bytes.size());
}

Bytes ascending(int first, std::size_t count) {
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(first));
    return bytes;
}

Bytes randomBytes(std::size_t count) {
    std::mt19937 random(20260101);
    Bytes bytes(count);
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(random());
    }
    return bytes;
}

constexpr std::string_view check = "123456789";

/// The vectors of RFC 3720, appendix B.4, and the usual check value.
TEST(CRC32c, KnownValues) {
    EXPECT_EQ(sum(BufferChecksumGeneratorLibCRC32c(), check.data(), check.size()), 0xe3069283U);
    EXPECT_EQ(crc32c(Bytes(32, 0x00)), 0x8a9136aaU);
    EXPECT_EQ(crc32c(Bytes(32, 0xff)), 0x62a8ab43U);
    const Bytes up = ascending(0, 32);
    EXPECT_EQ(crc32c(up), 0x46dd794eU);
    EXPECT_EQ(crc32c(Bytes(up.rbegin(), up.rend())), 0x113fdb5cU);
}

TEST(CRC32c, SumOfNothingIsZero) {
    EXPECT_EQ(sum(BufferChecksumGeneratorLibCRC32c(), "", 0), 0U);
    EXPECT_EQ(sum(BufferChecksumGeneratorLibCRC32c(), nullptr, 0), 0U);
}

TEST(GCryptCRC32, KnownValues) {
    EXPECT_EQ(sum(BufferChecksumGeneratorGCryptCRC32(), check.data(), check.size()), 0xcbf43926U);
    EXPECT_EQ(sum(BufferChecksumGeneratorGCryptCRC32(), "", 0), 0U);
    const Bytes up = ascending(0, 256);
    EXPECT_EQ(sum(BufferChecksumGeneratorGCryptCRC32(), up.data(), up.size()), 0x29058c73U);
}

TEST(GCryptCRC32, SmallSumsKeepTheirLeadingZeros) {
    Bytes bytes(2);
    while (reference(ieee, bytes.data(), bytes.size()) >> 24U != 0) {
        bytes[1] = static_cast<unsigned char>(bytes[1] + (++bytes[0] == 0 ? 1 : 0));
    }
    EXPECT_EQ(sum(BufferChecksumGeneratorGCryptCRC32(), bytes.data(), bytes.size()),
              reference(ieee, bytes.data(), bytes.size()));
}

TEST(GCryptCRC32, NullBufferFailsAndLeavesTheResultAlone) {
    std::uint32_t out = 7;
    EXPECT_FALSE(BufferChecksumGeneratorGCryptCRC32().generate(nullptr, 10, out));
    EXPECT_FALSE(BufferChecksumGeneratorGCryptCRC32().generate(nullptr, 0, out));
    EXPECT_EQ(out, 7U);
}

TEST(BufferChecksumGenerators, AgreeWithTheDefinitionAtEveryLengthAndAlignment) {
    const Bytes bytes = randomBytes(400);
    const BufferChecksumGeneratorLibCRC32c crc32c;
    const BufferChecksumGeneratorGCryptCRC32 crc32;
    for (std::size_t start = 0; start < 17; ++start) {
        for (std::size_t length = 0; start + length <= bytes.size(); ++length) {
            const unsigned char* const first = bytes.data() + start;
            ASSERT_EQ(sum(crc32c, first, length), reference(test::castagnoli, first, length))
                << start << "+" << length;
            ASSERT_EQ(sum(crc32, first, length), reference(ieee, first, length)) << start << "+" << length;
        }
    }
}

TEST(BufferChecksumGenerators, AgreeWithTheDefinitionOnALongBuffer) {
    const Bytes bytes = randomBytes(3 * 1024 * 1024 + 5);
    EXPECT_EQ(crc32c(bytes), reference(test::castagnoli, bytes.data(), bytes.size()));
    EXPECT_EQ(sum(BufferChecksumGeneratorGCryptCRC32(), bytes.data(), bytes.size()),
              reference(ieee, bytes.data(), bytes.size()));
}

TEST(BufferChecksumGenerators, SeeEveryBit) {
    Bytes bytes = randomBytes(64);
    const std::uint32_t before = crc32c(bytes);
    for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
        const auto mask = static_cast<unsigned char>(1U << bit % 8);
        bytes[bit / 8] ^= mask;
        EXPECT_NE(crc32c(bytes), before) << bit;
        bytes[bit / 8] ^= mask;
    }
    EXPECT_EQ(crc32c(bytes), before);
}

TEST(BufferChecksumGeneratorFactory, MakesTheGeneratorOfTheType) {
    const BufferChecksumGeneratorFactory factory;
    const auto sumOfType = [&](int type) {
        return sum(*factory.create(static_cast<db::ChecksumType>(type)), check.data(), check.size());
    };
    EXPECT_EQ(sumOfType(0), 0xcbf43926U);
    EXPECT_EQ(sumOfType(1), 0xe3069283U);
    EXPECT_EQ(sumOfType(2), 0xe3069283U);
    EXPECT_EQ(sumOfType(-1), 0xe3069283U);
}

/// The first use of the library initializes it, on whichever thread that happens.
TEST(BufferChecksumGenerators, AreSafeFromAnyThread) {
    const BufferChecksumGeneratorFactory factory;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int round = 0; round < 200; ++round) {
                const auto crc32 = factory.create(db::ChecksumType::gcrypt32crc);
                const auto crc32c = factory.create(db::ChecksumType::libcrc32c);
                EXPECT_EQ(sum(*crc32, check.data(), check.size()), 0xcbf43926U);
                EXPECT_EQ(sum(*crc32c, check.data(), check.size()), 0xe3069283U);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace
} // namespace agent
