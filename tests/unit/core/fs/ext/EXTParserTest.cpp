#include "unit/core/fs/ext/EXTParserFixture.h"

#include <algorithm>

namespace agent::core::fs {
namespace {

TEST_F(EXTParserTest, RecognisesTheMagicAlone) {
    make({});
    EXTParser parser(record.logger, image->volume, 512);
    EXPECT_TRUE(parser.recognize());
    setSuperBlock(56, 0xEF54, 2);
    EXPECT_FALSE(parser.recognize());
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(EXTParserTest, UnreadableSuperBlockIsNotRecognised) {
    make({});
    EXTParser parser(record.logger, image->volume, 512);
    image->volume.failReads(1500, 1501);
    EXPECT_FALSE(parser.recognize());
    EXPECT_TRUE(record.has(info::level::error, "Could not read EXT super block."));
    image->volume.failReads(0, 0);
    record.clear();
    image->volume.size = 2047;
    EXPECT_FALSE(parser.recognize());
    EXPECT_TRUE(record.has(info::level::error, "Could not read EXT super block."));
    image->volume.size = 2048;
    EXPECT_TRUE(parser.recognize());
}

TEST_F(EXTParserTest, BlocksOf4KiBHaveTheTableAtTheSecondBlock) {
    make({.logBlockSize = 2});
    image->setUsed(0);
    image->setUsed(32767);
    image->setUsed(32768);
    image->setUsed(99'999);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{0, 32767, 32768, 99'999}));
    EXPECT_EQ(image->volume.requests.front().offset, 4096U);
}

// Block 0 is before the first group: no bitmap covers it, and it may contain a boot loader.
TEST_F(EXTParserTest, BlocksOf1KiBHaveTheTableAtByte2048AndABootBlock) {
    make({.logBlockSize = 0, .blocksPerGroup = 8192, .blockCount = 20'000});
    image->setUsed(1);
    image->setUsed(8192);
    image->setUsed(8193);
    image->setUsed(19'999);
    EXPECT_EQ(parse(), 20'000);
    EXPECT_EQ(used(), (Blocks{0, 1, 8192, 8193, 19'999}));
    EXPECT_EQ(parse(1), 19'999);
    EXPECT_EQ(used(1), (Blocks{1, 8192, 8193, 19'999}));
    EXPECT_EQ(image->volume.requests.front().offset, 2048U);
}

TEST_F(EXTParserTest, ShortLastGroupEndsWithTheVolume) {
    make({.blockCount = 32768 + 5});
    std::ranges::for_each(std::vector{32768U, 32772U},
                          [this](std::uint32_t block) { image->setUsed(block); });
    image->volume.at(image->blockSize * 3 + 0) |= 0xe0; // padding after the volume's end
    EXPECT_EQ(parse(), 32773);
    EXPECT_EQ(used(), (Blocks{32768, 32772}));
    EXPECT_EQ(parse(32770), 3);
    EXPECT_EQ(used(32770), (Blocks{32772}));
}

TEST_F(EXTParserTest, NothingIsLeftAtTheEnd) {
    make({});
    EXPECT_EQ(parse(100'000), 0);
    EXPECT_EQ(used(), Blocks{});
    EXPECT_TRUE(record.lines().empty());
    make({.blockCount = 65536}); // the last group is complete
    EXPECT_EQ(parse(65536), 0);
}

TEST_F(EXTParserTest, StartBehindTheEndFails) {
    make({});
    EXPECT_EQ(parse(100'001), -1);
    EXPECT_EQ(record.lines(),
              (Lines{{info::level::error, "Invalid start block"}, {info::level::error, extLogicalError}}));
    record.clear();
    EXPECT_EQ(parse(std::uint64_t{1} << 32), -1);
    EXPECT_TRUE(record.has(info::level::error, "Invalid start block"));
}

TEST_F(EXTParserTest, NullBufferFails) {
    make({});
    EXTParser parser(record.logger, image->volume, 512);
    ASSERT_TRUE(parser.recognize());
    EXPECT_EQ(parser.getBitmapChunk(0, nullptr, 100), -1);
    EXPECT_EQ(record.lines(),
              (Lines{{info::level::error, "Invalid bitmap buffer"}, {info::level::error, extLogicalError}}));
}

TEST_F(EXTParserTest, BufferThatIsTooSmallFailsTheCall) {
    make({});
    EXPECT_EQ(parse(0, 12'500), 100'000); // exactly large enough
    EXPECT_EQ(parse(0, 12'499), -1);
    EXPECT_EQ(record.lines(), (Lines{{info::level::error, extLogicalError}}));
    EXPECT_EQ(parse(8, 12'499), 99'992);
    EXPECT_EQ(parse(0, 0), -1);
    EXPECT_EQ(parse(100'000, 0), 0);
}

TEST_F(EXTParserTest, DescriptorsAreAsLargeAsThe64BitFeatureSays) {
    for (const std::uint16_t size : std::vector<std::uint16_t>{32, 64, 128, 1024}) {
        make({.descriptorSize = size});
        for (const std::uint32_t block : {1U, 33'000U, 99'998U}) {
            image->setUsed(block);
        }
        EXPECT_EQ(parse(), 100'000);
        EXPECT_EQ(used(), (Blocks{1, 33'000, 99'998})) << size;
    }
    make({});
    setSuperBlock(254, 64, 2); // valid only with the 64-bit feature
    image->setUsed(33'000);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{33'000}));
}

TEST_F(EXTParserTest, BitmapsSideBySideAreReadAtOnce) {
    make({});
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(image->volume.requests.size(), 2U); // the descriptor table, and all four bitmaps
    image->setUninitialized(1);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(image->volume.requests.size(), 3U);
}

TEST_F(EXTParserTest, ScatteredBitmapsAreFound) {
    make({});
    image->placeBitmap(0, 5000);
    image->placeBitmap(1, 4999);
    image->placeBitmap(2, 99'999);
    image->placeBitmap(3, 7);
    for (const std::uint32_t block : {5U, 33'000U, 66'000U, 99'000U}) {
        image->setUsed(block);
    }
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{5, 33'000, 66'000, 99'000}));
}

TEST_F(EXTParserTest, UnreadableTableFails) {
    make({});
    image->volume.failReads(4096, 4097);
    EXPECT_EQ(parse(), -1);
    EXPECT_TRUE(record.has(info::level::error, "Can't read bgd table"));
    image->volume.failReads(0, 0);
    record.clear();
    image->volume.size = 4096 + 4 * 32 - 1;
    EXPECT_EQ(parse(), -1);
    EXPECT_TRUE(record.has(info::level::error, "Can't read bgd table"));
}

TEST_F(EXTParserTest, UnreadableBitmapFails) {
    make({});
    image->volume.failReads(std::uint64_t{4096} * 4, std::uint64_t{4096} * 4 + 1); // the third group's bitmap
    EXPECT_EQ(parse(), -1);
    EXPECT_EQ(record.lines()[1], (test::RecordingLogger::Line{info::level::error, "Can't read bitmap"}));
    EXPECT_TRUE(record.has(info::level::error, extLogicalError));
    EXPECT_EQ(parse(98'304), 1696); // reading only the last group works
}

TEST_F(EXTParserTest, BitmapOutsideOfTheFileSystemFails) {
    for (const std::uint64_t block : {0UL, 100'000UL, 0xFFFFFFFFUL}) {
        make({});
        image->placeBitmap(2, block);
        record.clear();
        EXPECT_EQ(parse(), -1) << block;
        EXPECT_TRUE(record.has(info::level::error, "Can't read bitmap"));
    }
    make({});
    image->placeBitmap(2, 90'000);
    image->volume.size = 90'000UL * 4096 + 4095; // the device is smaller than its file system
    EXPECT_EQ(parse(), -1);
    image->volume.size += 1;
    EXPECT_EQ(parse(), 100'000);
}

} // namespace
} // namespace agent::core::fs
