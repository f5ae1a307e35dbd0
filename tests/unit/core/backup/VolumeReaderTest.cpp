#include "core/backup/VolumeReader.h"

#include "common/AlignedBuffer.h"
#include "common/PosixError.h"
#include "support/DeniedSystemCall.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace agent::core::backup {
namespace {

class VolumeReaderTest : public testing::Test {
protected:
    VolumeReaderTest() { test::writeFile(path, std::string(4096, 'a') + std::string(1000, 'b')); }

    test::TestDirectory directory;
    std::string path = (directory / "volume").str();
    test::RecordingLogger record;
};

TEST_F(VolumeReaderTest, LearnsTheSizeAndStartsClosed) {
    const VolumeReader reader(record.logger, path);
    EXPECT_EQ(reader.getSize(), 5096U);
    EXPECT_EQ(reader.getFd(), -1);
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(VolumeReaderTest, ReadsOnceOpened) {
    VolumeReader reader(record.logger, path);
    ASSERT_TRUE(reader.open());
    EXPECT_GE(reader.getFd(), 0);
    EXPECT_NE(::fcntl(reader.getFd(), F_GETFD) & FD_CLOEXEC, 0);
    AlignedBuffer buffer(8192, 512);
    EXPECT_EQ(reader.seek(4096, SEEK_SET), 4096);
    EXPECT_EQ(reader.read(buffer.data(), 4096), 1000);
    EXPECT_EQ(static_cast<char>(buffer.data()[0]), 'b');
    EXPECT_TRUE(
        record.has(info::level::debug, "Read less than we asked for 1000 of 4096  on block device " + path));
    EXPECT_EQ(reader.seek(0, SEEK_SET), 0);
    record.clear();
    EXPECT_EQ(reader.read(buffer.data(), 4096), 4096);
    EXPECT_EQ(static_cast<char>(buffer.data()[4095]), 'a');
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(VolumeReaderTest, AsksForDirectIo) {
    VolumeReader reader(record.logger, path);
    ASSERT_TRUE(reader.open());
    const int direct = ::open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
    const bool isPossible = direct >= 0;
    if (isPossible) {
        ::close(direct); // NOLINT(resources): opened by this test only to learn whether it can be
    }
    EXPECT_EQ((::fcntl(reader.getFd(), F_GETFL) & O_DIRECT) != 0, isPossible);
}

// /proc doesn't support direct I/O.
TEST_F(VolumeReaderTest, FileSystemWithoutDirectIoIsReadAllTheSame) {
    ASSERT_EQ(::open("/proc/self/status", O_RDONLY | O_DIRECT | O_CLOEXEC), -1);
    ASSERT_EQ(errno, EINVAL);
    VolumeReader reader(record.logger, "/proc/self/cmdline");
    ASSERT_TRUE(reader.open());
    char byte = 0;
    EXPECT_EQ(reader.read(&byte, 1), 1);
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(VolumeReaderTest, MissingDeviceFailsInTheConstructor) {
    EXPECT_EQ(test::messageOf<PosixError>([this] { VolumeReader(record.logger, path + "x"); }),
              PosixError("Unable to open block device to calculate size", ENOENT).what());
    EXPECT_TRUE(record.has(info::level::error, "Failed to open block device " + path + "x, err: 2"));
}

TEST_F(VolumeReaderTest, DeviceThatIsGoneCantBeOpened) {
    VolumeReader reader(record.logger, path);
    ASSERT_EQ(::unlink(path.c_str()), 0);
    EXPECT_FALSE(reader.open());
    EXPECT_EQ(reader.getFd(), -1);
    EXPECT_TRUE(record.has(info::level::error, "Failed to open block device " + path + ", err: 2"));
}

TEST_F(VolumeReaderTest, DeviceThatCantBeSoughtHasNoSize) {
    ASSERT_EQ(::mkfifo((path + ".pipe").c_str(), 0600), 0);
    const int keepsItOpen = ::open((path + ".pipe").c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(test::messageOf<PosixError>([this] { VolumeReader(record.logger, path + ".pipe"); }),
              PosixError("Unable to get current position in block device to calculate size", ESPIPE).what());
    EXPECT_EQ(
        record.lines(),
        (std::vector<test::RecordingLogger::Line>{
            {info::level::error, "Failed to seek to block 0 on block device " + path + ".pipe, err: 29"},
            {info::level::error, "Failed to get current position in device " + path + ".pipe: errno = 29"}}));
    ::close(keepsItOpen); // NOLINT(resources): the other end of the pipe
}

TEST_F(VolumeReaderTest, FailedSeekIsLogged) {
    VolumeReader reader(record.logger, path);
    EXPECT_EQ(reader.seek(512, SEEK_SET), -1); // closed
    EXPECT_TRUE(
        record.has(info::level::error, "Failed to seek to block 512 on block device " + path + ", err: 9"));
    ASSERT_TRUE(reader.open());
    EXPECT_EQ(reader.seek(-1, SEEK_SET), -1);
    EXPECT_TRUE(
        record.has(info::level::error, "Failed to seek to block -1 on block device " + path + ", err: 22"));
}

TEST_F(VolumeReaderTest, FailedReadIsLogged) {
    VolumeReader reader(record.logger, path);
    char byte = 0;
    EXPECT_EQ(reader.read(&byte, 1), -1); // closed
    EXPECT_EQ(record.lines(),
              (std::vector<test::RecordingLogger::Line>{
                  {info::level::error, "Failed to read length 1 on block device " + path + ", err: 9"}}));
}

TEST_F(VolumeReaderTest, OpeningAgainReplacesTheDescriptor) {
    VolumeReader reader(record.logger, path);
    ASSERT_TRUE(reader.open());
    const int first = reader.getFd();
    ASSERT_TRUE(reader.open());
    EXPECT_TRUE(reader.getFd() == first || ::fcntl(first, F_GETFD) == -1);
}

} // namespace
} // namespace agent::core::backup
