#include "core/fs/FSUtil.h"

#include "support/FaultyVolume.h"
#include "support/MemoryVolume.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <vector>

namespace agent::core::fs {
namespace {

using Buffer = std::vector<std::uint8_t>;
using Requests = std::vector<test::MemoryVolume::Request>;

constexpr std::size_t mebibyte = 1024UL * 1024;

class FSUtilTest : public testing::Test {
protected:
    FSUtilTest() {
        for (std::uint64_t offset = 0; offset < volume.size; ++offset) {
            volume.at(offset) = content(offset);
        }
    }

    static std::uint8_t content(std::uint64_t offset) {
        return static_cast<std::uint8_t>(offset * 7 + offset / 256 + 1);
    }

    int readChunk(std::uint64_t offset, std::size_t length, std::size_t alignment = 512) {
        buffer.assign(length, 0xee);
        return FSUtil::readChunk(record.logger, volume, alignment, offset, buffer.data(), length, bytesRead);
    }

    bool readExactly(std::uint64_t offset, std::size_t length) {
        buffer.assign(length, 0xee);
        return FSUtil::readExactly(record.logger, volume, 512, offset, buffer.data(), length);
    }

    /// Whether the buffer holds the volume's bytes from `offset` on.
    [[nodiscard]] bool holds(std::uint64_t offset, std::size_t length) const {
        for (std::size_t i = 0; i < length; ++i) {
            if (buffer[i] != content(offset + i)) {
                return false;
            }
        }
        return true;
    }

    test::RecordingLogger record;
    test::MemoryVolume volume{10000};
    Buffer buffer;
    std::size_t bytesRead = 99;
};

// As for a device whose sector size can't be determined.
TEST_F(FSUtilTest, UnknownAlignmentIsThatOfAPage) {
    EXPECT_EQ(readChunk(5000, 100, 0), 0);
    EXPECT_TRUE(holds(5000, 100));
    EXPECT_EQ(volume.requests, (Requests{{4096, 4096}}));
    buffer.assign(300, 0xee);
    EXPECT_TRUE(FSUtil::readExactly(record.logger, volume, 0, 9700, buffer.data(), 300));
    EXPECT_TRUE(holds(9700, 300));
    EXPECT_FALSE(FSUtil::readExactly(record.logger, volume, 0, 9701, buffer.data(), 300));
}

TEST_F(FSUtilTest, ReadsTheAlignedRangeAroundWhatIsAskedFor) {
    EXPECT_EQ(readChunk(1000, 100), 0);
    EXPECT_EQ(volume.requests, (Requests{{512, 1024}}));
    EXPECT_EQ(bytesRead, 100U);
    EXPECT_TRUE(holds(1000, 100));
}

TEST_F(FSUtilTest, ReadsAnyRangeWithAnyAlignment) {
    for (const std::size_t alignment : {1U, 3U, 512U, 4096U}) {
        for (std::uint64_t offset = 0; offset < 1100; offset += 37) {
            for (const std::size_t length : {1U, 11U, 512U, 4097U}) {
                ASSERT_EQ(readChunk(offset, length, alignment), 0);
                ASSERT_EQ(bytesRead, length);
                ASSERT_TRUE(holds(offset, length)) << alignment << " " << offset << " " << length;
            }
        }
    }
}

TEST_F(FSUtilTest, NothingIsReadOfNothing) {
    EXPECT_EQ(readChunk(512, 0), 0);
    EXPECT_EQ(bytesRead, 0U);
    EXPECT_TRUE(volume.requests.empty());
}

TEST_F(FSUtilTest, EndOfTheDeviceIsASuccessThatDeliversLess) {
    EXPECT_EQ(readChunk(9728, 1024), 0);
    EXPECT_EQ(bytesRead, 272U);
    EXPECT_TRUE(holds(9728, 272));
    EXPECT_EQ(buffer[272], 0xee);
    EXPECT_EQ(readChunk(20480, 10), 0);
    EXPECT_EQ(bytesRead, 0U);
}

// 272 bytes can be read at 9728; the first 200 precede the requested range. The reported count includes bytes
// past the end of the volume, which are zeros.
TEST_F(FSUtilTest, WithinAnUnalignedRangeTheEndIsNotSeen) {
    EXPECT_EQ(readChunk(9928, 100), 0);
    EXPECT_EQ(bytesRead, 100U);
    EXPECT_TRUE(holds(9928, 72));
    EXPECT_EQ(buffer[72], 0);
    EXPECT_FALSE(readExactly(9928, 100));
    EXPECT_TRUE(readExactly(9928, 72));
    EXPECT_TRUE(holds(9928, 72));
}

TEST_F(FSUtilTest, FailedSeekIsSilent) {
    buffer.resize(10);
    test::FaultyVolume once(volume, 1);
    EXPECT_EQ(FSUtil::readChunk(record.logger, once, 512, 0, buffer.data(), 10, bytesRead), -1);
    EXPECT_EQ(bytesRead, 0U);
    test::FaultyVolume again(volume, 1);
    EXPECT_FALSE(FSUtil::readExactly(record.logger, again, 512, 0, buffer.data(), 10));
    EXPECT_TRUE(volume.requests.empty());
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(FSUtilTest, FailedReadIsLogged) {
    volume.failReads(1024, 1025);
    EXPECT_EQ(readChunk(1000, 100), -1);
    EXPECT_EQ(bytesRead, 0U);
    EXPECT_TRUE(record.has(info::level::debug, "CHUNK READ FILE FAILED: OFFSET: 512 - 1024 BYTES"));
    EXPECT_FALSE(readExactly(1000, 100));
    EXPECT_TRUE(readExactly(900, 100));
}

TEST_F(FSUtilTest, OneReadIsOfFourMebibytesAtMost) {
    volume.size = 10 * mebibyte;
    EXPECT_EQ(readChunk(0, 9 * mebibyte), 0);
    EXPECT_EQ(volume.requests,
              (Requests{{0, 4 * mebibyte}, {4 * mebibyte, 4 * mebibyte}, {8 * mebibyte, mebibyte}}));
    EXPECT_EQ(bytesRead, 9 * mebibyte);
}

// Each read stores its data where its part of the range belongs, even if an earlier read was short.
TEST_F(FSUtilTest, ShortReadLeavesItsRestAsItWas) {
    volume.size = 10 * mebibyte;
    volume.longest = 100;
    Buffer bytes(9 * mebibyte, 0);
    bytesRead = 5;
    EXPECT_EQ(FSUtil::readFully(volume, bytes.data(), bytes.size(), bytesRead), 0);
    EXPECT_EQ(bytesRead, 5U + 300U);
    EXPECT_EQ(bytes[99], content(99));
    EXPECT_EQ(bytes[100], 0);
    EXPECT_EQ(bytes[4 * mebibyte], content(100));
    EXPECT_EQ(bytes[8 * mebibyte + 1], content(201));
}

TEST_F(FSUtilTest, FailureEndsTheLoop) {
    volume.size = 10 * mebibyte;
    volume.failReads(4 * mebibyte, 5 * mebibyte);
    Buffer bytes(9 * mebibyte, 0);
    bytesRead = 0;
    EXPECT_EQ(FSUtil::readFully(volume, bytes.data(), bytes.size(), bytesRead), -1);
    EXPECT_EQ(bytesRead, 4 * mebibyte);
    EXPECT_EQ(volume.requests.size(), 2U);
}

TEST_F(FSUtilTest, UnobtainableMemoryIsLoggedWithItsPlace) {
    std::uint8_t byte = 0;
    EXPECT_THROW(FSUtil::readChunk(record.logger, volume, 512, 0, &byte, SIZE_MAX - 1023, bytesRead),
                 std::bad_alloc);
    EXPECT_TRUE(record.hasPart(
        info::level::debug, "Failed to create aligned memory of size: 18446744073709550592, alignment: 512"));
    EXPECT_TRUE(record.hasPart(info::level::debug, " in file: FSUtil.cpp, error: std::bad_alloc"));
}

} // namespace
} // namespace agent::core::fs
