#include "core/backup/VolumeChecksumGenerator.h"

#include "support/FakeTransport.h"
#include "support/FaultyTransport.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

namespace agent::core::backup {
namespace {

constexpr std::size_t regionBytes = 10485760;
using db::ChecksumType;

// The checksums of 10 MiB of zeros, computed by other implementations.
constexpr std::uint32_t crc32OfZeros = 0x9eca2acc;
constexpr std::uint32_t crc32cOfZeros = 0x08f2709b;

/// Checks that all reads are aligned for direct I/O.
class AlignmentCheck : public test::FakeTransport {
public:
    using FakeTransport::FakeTransport;

    std::int64_t read(void* data, std::uint64_t length) override {
        aligned = aligned && reinterpret_cast<std::uintptr_t>(data) % 4096 == 0 && length % 4096 == 0;
        return FakeTransport::read(data, length);
    }

    bool aligned = true;
};

class VolumeChecksumGeneratorTest : public testing::Test {
protected:
    VolumeChecksumGeneratorTest() { transport->connect(false); }

    test::RecordingLogger log;
    std::shared_ptr<AlignmentCheck> transport = std::make_shared<AlignmentCheck>(regionBytes);
    VolumeChecksumGenerator generator{log.logger, transport};
    std::uint32_t out = 0;
};

TEST_F(VolumeChecksumGeneratorTest, SumsUpByTheTypeThatIsAskedFor) {
    EXPECT_TRUE(generator.generate(ChecksumType::gcrypt32crc, out));
    EXPECT_EQ(out, crc32OfZeros);
    EXPECT_TRUE(generator.generate(ChecksumType::libcrc32c, out));
    EXPECT_EQ(out, crc32cOfZeros);
}

TEST_F(VolumeChecksumGeneratorTest, ReadsTheStartWhereverTheTransportStands) {
    transport->seek(4096, 0);
    EXPECT_TRUE(generator.generate(ChecksumType::libcrc32c, out));
    EXPECT_EQ(out, crc32cOfZeros);
    EXPECT_EQ(transport->reads, 1);
    EXPECT_EQ(transport->position, static_cast<std::int64_t>(regionBytes));
    EXPECT_TRUE(transport->aligned);
}

TEST_F(VolumeChecksumGeneratorTest, SeesTheLastByteOfTheRegionAndNoneBehindIt) {
    transport->image.resize(regionBytes + 4096);
    transport->image[regionBytes] = 1;
    EXPECT_TRUE(generator.generate(ChecksumType::libcrc32c, out));
    EXPECT_EQ(out, crc32cOfZeros);
    transport->image[regionBytes - 1] = 1;
    EXPECT_TRUE(generator.generate(ChecksumType::libcrc32c, out));
    EXPECT_NE(out, crc32cOfZeros);
}

TEST_F(VolumeChecksumGeneratorTest, SmallerImageHasNoChecksum) {
    transport->image.resize(regionBytes - 1);
    out = 7;
    EXPECT_FALSE(generator.generate(ChecksumType::libcrc32c, out));
    EXPECT_EQ(out, 7U);
    EXPECT_TRUE(
        log.has(info::level::debug, "The checksum of a remote image needs 10485760 bytes, read: 10485759"));
}

TEST_F(VolumeChecksumGeneratorTest, NothingReadIsAFailureToo) {
    transport->connect(false);
    const auto faulty = std::make_shared<test::FaultyTransport>(transport, 2, 0);
    out = 7;
    EXPECT_FALSE(VolumeChecksumGenerator(log.logger, faulty).generate(ChecksumType::libcrc32c, out));
    EXPECT_EQ(out, 7U);
}

TEST_F(VolumeChecksumGeneratorTest, EveryFailingCallFailsIt) {
    int call = 1;
    for (bool failed = true; failed; ++call) {
        const auto faulty = std::make_shared<test::FaultyTransport>(transport, call);
        out = 7;
        const bool result =
            VolumeChecksumGenerator(log.logger, faulty).generate(ChecksumType::libcrc32c, out);
        failed = faulty->hasFailed();
        EXPECT_EQ(result, !failed) << "call " << call;
        EXPECT_EQ(out, failed ? 7U : crc32cOfZeros) << "call " << call;
    }
    EXPECT_EQ(call, 4) << "a seek and a read can fail";
}

} // namespace
} // namespace agent::core::backup
