#include "os/SparseFile.h"

#include "os/FileDescriptor.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <random>
#include <string>
#include <unistd.h>

namespace os {
namespace {

constexpr std::uint64_t block = 65536; ///< larger than any file system's allocation unit

class SparseFileTest : public ::testing::Test {
protected:
    void write(std::string_view text, std::uint64_t offset) const {
        ASSERT_TRUE(writeAllAt(file.get(), std::as_bytes(std::span(text)), offset));
    }
    void grow(std::uint64_t size) const { ASSERT_EQ(::ftruncate(file.get(), static_cast<off_t>(size)), 0); }

    /// Reads into a buffer of non-zero bytes in one of two ways; returns the error and the bytes that were
    /// read.
    [[nodiscard]] std::string read(std::uint64_t offset, std::size_t length, bool plain) const {
        std::string room(length, '?');
        const std::span<std::byte> into = std::as_writable_bytes(std::span(room));
        const Transfer reading =
            plain ? readUpToAt(file.get(), into, offset) : readSkippingHoleAt(file.get(), into, offset);
        return std::to_string(reading.error) + " " + room.substr(0, reading.bytes);
    }

    agent::test::TestDirectory directory;
    FileDescriptor file{::open((directory / "file").str().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
};

TEST_F(SparseFileTest, WhatWasNeverWrittenIsAHole) {
    write("data", 2 * block);
    grow(4 * block);
    EXPECT_EQ(holeLengthAt(file.get(), 0, 9 * block), 2 * block);
    EXPECT_EQ(holeLengthAt(file.get(), 512, block), block);
    EXPECT_EQ(holeLengthAt(file.get(), 2 * block, block), 0U);
    EXPECT_EQ(holeLengthAt(file.get(), 3 * block + 1, 9 * block),
              block - 1); // no further than the end of the file
    EXPECT_EQ(holeLengthAt(file.get(), 0, 0), 0U);
}

TEST_F(SparseFileTest, SpaceThatIsOnlySetAsideIsAHole) {
    ASSERT_EQ(::fallocate(file.get(), 0, 0, static_cast<off_t>(2 * block)), 0);
    write("data", 0);
    EXPECT_EQ(holeLengthAt(file.get(), 0, block), 0U);
    EXPECT_EQ(holeLengthAt(file.get(), block, 2 * block), block);
}

TEST_F(SparseFileTest, NothingIsAHoleBehindTheEnd) {
    grow(block);
    for (const std::uint64_t offset : {block, block + 1, std::numeric_limits<std::uint64_t>::max()}) {
        EXPECT_EQ(holeLengthAt(file.get(), offset, block), 0U) << offset;
    }
    EXPECT_EQ(read(block, 10, false), "0 ");
}

TEST_F(SparseFileTest, WhatHasNoPositionsHasNoHoles) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const FileDescriptor reading(ends[0]);
    const FileDescriptor writing(ends[1]);
    EXPECT_EQ(holeLengthAt(reading.get(), 0, 10), 0U);
    EXPECT_EQ(holeLengthAt(-1, 0, 10), 0U);
    std::array<std::byte, 10> room{};
    EXPECT_EQ(readSkippingHoleAt(reading.get(), room, 0).error, ESPIPE);
}

TEST_F(SparseFileTest, ReadsTheSameAsPlainReading) {
    std::mt19937 random(5);
    for (int piece = 0; piece < 8; ++piece) {
        write(std::string(1 + random() % block, static_cast<char>('a' + piece)), random() % (40 * block));
    }
    grow(45 * block);
    for (int round = 0; round < 200; ++round) {
        const std::uint64_t offset = random() % (46 * block);
        const std::size_t length = random() % (4 * block);
        ASSERT_TRUE(read(offset, length, false) == read(offset, length, true)) << offset << "+" << length;
    }
}

} // namespace
} // namespace os
