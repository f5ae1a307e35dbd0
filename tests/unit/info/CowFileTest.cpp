#include "info/CowFile.h"

#include "common/Exceptions.h"
#include "common/PosixError.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"
#include "unit/info/CowImage.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace agent::info {
namespace {

using test::CowImage;
using test::messageOf;

class CowFileTest : public testing::Test {
protected:
    CowFile read(const std::string& bytes) {
        test::writeFile(path, bytes);
        return {recorder.logger, path};
    }

    /// The error message of the constructor for a file that it can't read.
    std::string refusal() {
        return messageOf<PosixError>([&] { CowFile(recorder.logger, path); });
    }

    static std::string posixError(const std::string& message, int error) {
        return PosixError(message, error).what();
    }

    test::TestDirectory directory;
    test::RecordingLogger recorder;
    const std::string path = directory / ".tolvu";
    const std::string unreadable = "Could not read header from \"" + path + "\". ";
};

TEST_F(CowFileTest, ReadsTheHeader) {
    const CowFile file = read(CowImage{.version = 1, .changedBlocks = 5, .table = {1, 0, 2}}.bytes());
    EXPECT_EQ(file.getSnapshotUuid(), CowImage::uuid);
    EXPECT_EQ(file.getVersion(), 1U);
    EXPECT_EQ(file.getChangedBlocks(), 5U);
    EXPECT_EQ(file.getBitmapOffset(), 4096U);
    EXPECT_EQ(file.getBitmapLength(), 24U);
    EXPECT_EQ(file.getBitmapEntries(), 3U);
    EXPECT_EQ(file.getBlockSize(), 4096U);
    EXPECT_EQ(recorder.lines(),
              (std::vector<test::RecordingLogger::Line>{
                  {level::debug, "Cow File Read: " + path + ", Snapshot UUID: " + CowImage::uuid +
                                     ", Version: 1, Bitmap Offset: 4096, Bitmap Length: 24, # Changed "
                                     "Blocks: 5"}}));
}

TEST_F(CowFileTest, NumbersAreLittleEndianAndWhole) {
    const CowFile file = read(CowImage{.version = 0x0102030405060708, .changedBlocks = ~0ULL}.bytes());
    EXPECT_EQ(file.getVersion(), 0x0102030405060708U);
    EXPECT_EQ(file.getChangedBlocks(), ~0ULL);
}

TEST_F(CowFileTest, LaterChangesOfTheFileDoNotShow) {
    const CowFile file = read(CowImage{.changedBlocks = 5}.bytes());
    test::writeFile(path, "");
    EXPECT_EQ(file.getChangedBlocks(), 5U);
}

/// Only the header is required. A file that ends before its table has an empty table.
TEST_F(CowFileTest, EveryTruncation) {
    const std::string whole = CowImage{.table = {1, 2}}.bytes();
    for (std::size_t length = 0; length < 64; ++length) {
        test::writeFile(path, whole.substr(0, length));
        EXPECT_EQ(refusal(), posixError(unreadable, ENODATA)) << length;
    }
    for (std::size_t length = 64; length <= whole.size(); ++length) {
        const CowFile file = read(whole.substr(0, length));
        EXPECT_EQ(file.getBitmapLength(), length < 4096 ? 0 : length - 4096) << length;
        EXPECT_EQ(file.getBitmapEntries(), file.getBitmapLength() / 8) << length;
    }
}

TEST_F(CowFileTest, EveryFlipInTheMagicIsNoticed) {
    const std::string whole = CowImage{}.bytes();
    for (std::size_t bit = 0; bit < 32; ++bit) {
        std::string damaged = whole;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << (bit % 8)));
        EXPECT_EQ(messageOf<std::logic_error>([&] { read(damaged); }),
                  path + " is not a valid linux cow header");
    }
}

TEST_F(CowFileTest, MissingFile) {
    EXPECT_EQ(refusal(), posixError("Open cow file \"" + path + "\" failed: ", ENOENT));
}

TEST_F(CowFileTest, WhatIsNoFile) {
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(refusal(), posixError(unreadable, EISDIR));
    ASSERT_EQ(::rmdir(path.c_str()), 0);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); // a FIFO without a writer
    EXPECT_EQ(refusal(), posixError("Could not seek to 0 in \"" + path + "\". ", ESPIPE));
    ASSERT_EQ(::unlink(path.c_str()), 0);
    test::writeFile(directory / "elsewhere", CowImage{}.bytes());
    ASSERT_EQ(::symlink("elsewhere", path.c_str()), 0);
    EXPECT_EQ(refusal(), posixError("Open cow file \"" + path + "\" failed: ", ELOOP));
}

} // namespace
} // namespace agent::info
