#include "os/Transfer.h"

#include "os/FileDescriptor.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace os {
namespace {

/// The bytes that a transfer has read, and its error.
struct Text {
    std::string text;
    int error = 0;
};

class TransferTest : public ::testing::Test {
protected:
    [[nodiscard]] FileDescriptor open(const char* name, int flags) const {
        return FileDescriptor(::open((directory / name).str().c_str(), flags | O_CLOEXEC, 0600));
    }

    static Text textOf(std::string room, const Transfer& reading) {
        room.resize(reading.bytes);
        return {room, reading.error};
    }
    static Text read(int descriptor, std::size_t length) {
        std::string room(length, '?');
        const Transfer reading = readUpTo(descriptor, std::as_writable_bytes(std::span(room)));
        return textOf(room, reading);
    }
    static Text readAt(int descriptor, std::size_t length, std::uint64_t offset) {
        std::string room(length, '?');
        const Transfer reading = readUpToAt(descriptor, std::as_writable_bytes(std::span(room)), offset);
        return textOf(room, reading);
    }

private:
    agent::test::TestDirectory directory;
};

TEST_F(TransferTest, ReadsOnAfterAPartOfAPipe) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_DIRECT | O_CLOEXEC), 0); // packet mode: each read returns one write
    const FileDescriptor reader(ends[0]);
    FileDescriptor writer(ends[1]);
    ASSERT_TRUE(writeAll(writer.get(), "ab"));
    ASSERT_TRUE(writeAll(writer.get(), "cd"));
    writer.reset();
    const Text found = read(reader.get(), 10);
    EXPECT_EQ(found.text, "abcd");
    EXPECT_EQ(found.error, 0) << "the end is no failure";
}

TEST_F(TransferTest, StopsWhereTheRoomEnds) {
    const FileDescriptor file = open("file", O_RDWR | O_CREAT);
    ASSERT_TRUE(writeAll(file.get(), "abcdef"));
    ASSERT_EQ(::lseek(file.get(), 0, SEEK_SET), 0);
    EXPECT_EQ(read(file.get(), 4).text, "abcd");
    EXPECT_EQ(read(file.get(), 4).text, "ef");
}

TEST_F(TransferTest, KeepsThePositionWhereAnOffsetIsGiven) {
    const FileDescriptor file = open("file", O_RDWR | O_CREAT);
    const std::string text = "xyz";
    ASSERT_TRUE(writeAllAt(file.get(), std::as_bytes(std::span(text)), 3));
    ASSERT_TRUE(writeAll(file.get(), "abc"));
    EXPECT_EQ(readAt(file.get(), 3, 2).text, "cxy");
    EXPECT_EQ(readAt(file.get(), 3, 5).text, "z");
    EXPECT_EQ(::lseek(file.get(), 0, SEEK_CUR), 3);
}

TEST_F(TransferTest, TellsWhyReadingFails) {
    const FileDescriptor folder = open("", O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(read(folder.get(), 1).error, EISDIR);
    EXPECT_EQ(readAt(folder.get(), 1, 0).error, EISDIR);
}

TEST_F(TransferTest, TellsWhyWritingFails) {
    const FileDescriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(full);
    EXPECT_FALSE(writeAll(full.get(), "x"));
    EXPECT_EQ(errno, ENOSPC);
    const std::string text = "x";
    EXPECT_FALSE(writeAllAt(full.get(), std::as_bytes(std::span(text)), 0));
    EXPECT_EQ(errno, ENOSPC);
}

} // namespace
} // namespace os
