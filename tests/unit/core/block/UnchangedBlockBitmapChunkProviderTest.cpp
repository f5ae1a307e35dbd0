#include "core/block/UnchangedBlockBitmapChunkProvider.h"

#include "common/Directory.h"
#include "support/DeniedSystemCall.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <limits>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace agent::core::block {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Line = test::RecordingLogger::Line;
using Words = std::vector<std::uint64_t>;

class UnchangedBlockBitmapChunkProviderTest : public testing::Test {
protected:
    static std::string bytesOf(const Words& words) {
        std::string bytes(words.size() * sizeof(std::uint64_t), '\0');
        std::memcpy(bytes.data(), words.data(), bytes.size());
        return bytes;
    }

    /// Fetches words into a buffer for `room` words, kept in `read`. Returns the provider's result.
    std::int64_t fetch(std::uint64_t start, std::size_t room) {
        read.assign(room, 0xdead);
        UnchangedBlockBitmapChunkProvider provider(log.logger, info);
        EXPECT_FALSE(provider.isBitmapMsbFirst());
        void* const buffer = read.data();
        const std::int64_t result =
            provider.getBitmapChunk(start, static_cast<std::uint8_t*>(buffer), room * sizeof(std::uint64_t));
        read.resize(result > 0 ? static_cast<std::size_t>(result) : 0);
        return result;
    }

    test::TestDirectory directory;
    IncrementalBitmapInfo info{(directory / "map").str(), 16, 40, 5, 0};
    test::RecordingLogger log;
    Words read;
};

TEST_F(UnchangedBlockBitmapChunkProviderTest, ReadsWhatFitsTheBuffer) {
    test::writeFile(info.fileName, bytesOf({77, 77, 1, 2, 3, 4, 5, 77}));
    EXPECT_EQ(fetch(0, 3), 3);
    EXPECT_THAT(read, ElementsAre(1, 2, 3));
    EXPECT_EQ(fetch(3, 3), 2);
    EXPECT_THAT(read, ElementsAre(4, 5));
    EXPECT_EQ(fetch(5, 3), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

/// The bitmap of a large volume has gigabytes of holes.
TEST_F(UnchangedBlockBitmapChunkProviderTest, HolesAreUnchangedWithoutBeingRead) {
    test::writeFile(info.fileName, "");
    info.bitmapEntries = 1U << 20U;
    std::filesystem::resize_file(info.fileName, info.bitmapOffset + info.bitmapEntries * 8);
    const pid_t child = ::fork();
    if (child == 0) {
        test::denySystemCall(SYS_read, EIO);
        test::denySystemCall(SYS_pread64, EIO);
        ::_exit(fetch(1000, 5000) == 5000 && read == Words(5000) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(UnchangedBlockBitmapChunkProviderTest, ALinkInThePlaceOfTheFileIsNotFollowed) {
    test::writeFile(directory / "elsewhere", bytesOf({77, 77, 1, 2, 3, 4, 5}));
    std::filesystem::create_symlink("elsewhere", info.fileName);
    EXPECT_EQ(fetch(0, 3), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{info::level::error, "Open incremental bitmap file " + info.fileName +
                                                         " failed: Too many levels of symbolic links"}));
}

TEST_F(UnchangedBlockBitmapChunkProviderTest, NothingIsReadBehindTheEntries) {
    test::writeFile(info.fileName, bytesOf(Words(20)));
    EXPECT_EQ(fetch(6, 3), 0);
    EXPECT_EQ(fetch(std::numeric_limits<std::uint64_t>::max() / 8, 3), 0);
}

TEST_F(UnchangedBlockBitmapChunkProviderTest, ShortFileIsShort) {
    test::writeFile(info.fileName, bytesOf({77, 77, 1, 2, 3}) + "half");
    EXPECT_EQ(fetch(0, 10), 3);
    EXPECT_THAT(read, ElementsAre(1, 2, 3));
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{info::level::info, "Incremental bitmap read request: 5, Data read: 3"},
                            Line{info::level::debug, "Reached EOF? : true"}));
    log.clear();
    EXPECT_EQ(fetch(4, 10), 0);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{info::level::info, "Incremental bitmap read request: 1, Data read: 0"},
                            Line{info::level::debug, "Reached EOF? : true"}));
}

TEST_F(UnchangedBlockBitmapChunkProviderTest, FileMayVanishBetweenTwoFetches) {
    test::writeFile(info.fileName, bytesOf(Words(20)));
    EXPECT_EQ(fetch(0, 2), 2);
    std::filesystem::remove(info.fileName);
    EXPECT_EQ(fetch(2, 2), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{info::level::error, "Open incremental bitmap file " + info.fileName +
                                                         " failed: No such file or directory"}));
}

TEST_F(UnchangedBlockBitmapChunkProviderTest, DirectoryCannotBeRead) {
    dir::make(info.fileName);
    EXPECT_EQ(fetch(0, 2), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{info::level::error, "Failed to read incremental bitmap: Is a directory"}));
}

TEST_F(UnchangedBlockBitmapChunkProviderTest, PipeDoesNotBlock) {
    ASSERT_EQ(::mkfifo(info.fileName.c_str(), 0600), 0);
    EXPECT_EQ(fetch(0, 2), 0);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{info::level::error, "Could not seek to 16 in incremental bitmap."}));
}

TEST_F(UnchangedBlockBitmapChunkProviderTest, PositionsOutsideEveryFileAreRefused) {
    test::writeFile(info.fileName, bytesOf(Words(20)));
    info.bitmapOffset = std::numeric_limits<std::uint64_t>::max() - 4;
    EXPECT_EQ(fetch(0, 2), 0);
    EXPECT_EQ(fetch(1, 2), 0);
    info.bitmapEntries = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(fetch(std::uint64_t{1} << 62U, 2), 0);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            Line{info::level::error, "Could not seek to 18446744073709551611 in incremental bitmap."},
            Line{info::level::error, "Could not seek to 18446744073709551615 in incremental bitmap."},
            Line{info::level::error, "Could not seek to 18446744073709551615 in incremental bitmap."}));
}

TEST_F(UnchangedBlockBitmapChunkProviderTest, CountBeyondTheFileIsBoundedByTheBuffer) {
    test::writeFile(info.fileName, bytesOf(Words(20, 9)));
    info.bitmapEntries = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(fetch(0, 4), 4);
    EXPECT_EQ(fetch(16, 4), 2);
}

} // namespace
} // namespace agent::core::block
