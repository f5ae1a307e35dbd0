#include "core/fs/ext/EXTParser.h"

#include "support/ExtImage.h"
#include "support/MemoryVolume.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace agent::core::fs {
namespace {

using test::ExtImage;
using Geometry = ExtImage::Geometry;
using Blocks = std::set<std::uint64_t>;
using Lines = std::vector<test::RecordingLogger::Line>;

constexpr std::uint64_t superBlock = ExtImage::superBlock;
const std::string logicalError = "A logical error occurred while attempting to parse the EXT bitmap, err: -1";

class EXTParserTest : public testing::Test {
protected:
    void make(Geometry geometry) { image = std::make_unique<ExtImage>(geometry); }

    /// What the parser says of the image from `startBlock` on. Recognises the volume anew.
    std::int64_t parse(std::uint64_t startBlock = 0, std::size_t bytes = 65536) {
        EXTParser parser(record.logger, image->volume, 512);
        EXPECT_TRUE(parser.recognize());
        image->volume.requests.clear();
        buffer.assign(bytes, 0xa5);
        return parser.getBitmapChunk(startBlock, buffer.data(), buffer.size());
    }

    /// The blocks that are set in the buffer, counted from `startBlock`.
    [[nodiscard]] Blocks used(std::uint64_t startBlock = 0) const {
        Blocks blocks;
        for (std::uint64_t bit = 0; bit < buffer.size() * 8; ++bit) {
            if ((buffer[bit / 8] >> (bit % 8) & 1) != 0) {
                blocks.insert(startBlock + bit);
            }
        }
        return blocks;
    }

    void expectRefused(const std::string& reason) {
        record.clear();
        EXPECT_EQ(parse(), -1);
        EXPECT_EQ(record.lines(), (Lines{{info::level::error, reason}, {info::level::error, logicalError}}));
        EXPECT_TRUE(image->volume.requests.empty()) << "something was read";
    }

    void setSuperBlock(std::uint64_t offset, std::uint64_t value, unsigned width = 4) {
        image->volume.writeLittle(superBlock + offset, value, width);
    }

    test::RecordingLogger record;
    std::unique_ptr<ExtImage> image;
    std::vector<std::uint8_t> buffer;
};

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
    image->use(0);
    image->use(32767);
    image->use(32768);
    image->use(99'999);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{0, 32767, 32768, 99'999}));
    EXPECT_EQ(image->volume.requests.front().offset, 4096U);
}

// Block 0 is before the first group: nothing tells that it is used.
TEST_F(EXTParserTest, BlocksOf1KiBHaveTheTableAtByte2048) {
    make({.logBlockSize = 0, .blocksPerGroup = 8192, .blockCount = 20'000});
    image->use(1);
    image->use(8192);
    image->use(8193);
    image->use(19'999);
    EXPECT_EQ(parse(), 20'000);
    EXPECT_EQ(used(), (Blocks{1, 8192, 8193, 19'999}));
    EXPECT_EQ(image->volume.requests.front().offset, 2048U);
}

TEST_F(EXTParserTest, ShortLastGroupEndsWithTheVolume) {
    make({.blockCount = 32768 + 5});
    std::ranges::for_each(std::vector{32768U, 32772U}, [this](std::uint32_t block) { image->use(block); });
    image->volume.at(image->blockSize * 3 + 0) |= 0xe0; // padding behind the volume's end
    EXPECT_EQ(parse(), 32773);
    EXPECT_EQ(used(), (Blocks{32768, 32772}));
    EXPECT_EQ(parse(32770), 3);
    EXPECT_EQ(used(32770), (Blocks{32772}));
}

TEST_F(EXTParserTest, StartsAnywhere) {
    make({.logBlockSize = 0, .blocksPerGroup = 8192, .blockCount = 20'000});
    for (std::uint32_t block = 1; block < 20'000; block += 7) {
        image->use(block);
    }
    EXPECT_EQ(parse(), 20'000);
    const Blocks all = used();
    for (const std::uint64_t start : {1U, 2U, 8U, 9U, 8192U, 8193U, 8194U, 16385U, 19'999U}) {
        EXPECT_EQ(parse(start), static_cast<std::int64_t>(20'000 - start));
        EXPECT_EQ(used(start), Blocks(all.lower_bound(start), all.end())) << start;
    }
}

TEST_F(EXTParserTest, NothingIsLeftAtTheEnd) {
    make({});
    EXPECT_EQ(parse(100'000), 0);
    EXPECT_EQ(used(), Blocks{});
    EXPECT_TRUE(record.lines().empty());
    make({.blockCount = 65536}); // ends with a whole group
    EXPECT_EQ(parse(65536), 0);
}

TEST_F(EXTParserTest, StartBehindTheEndFails) {
    make({});
    EXPECT_EQ(parse(100'001), -1);
    EXPECT_EQ(record.lines(),
              (Lines{{info::level::error, "Invalid start block"}, {info::level::error, logicalError}}));
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
              (Lines{{info::level::error, "Invalid bitmap buffer"}, {info::level::error, logicalError}}));
}

TEST_F(EXTParserTest, BufferThatIsTooSmallFailsTheCall) {
    make({});
    EXPECT_EQ(parse(0, 12'500), 100'000); // exactly enough
    EXPECT_EQ(parse(0, 12'499), -1);
    EXPECT_EQ(record.lines(), (Lines{{info::level::error, logicalError}}));
    EXPECT_EQ(parse(8, 12'499), 99'992);
    EXPECT_EQ(parse(0, 0), -1);
    EXPECT_EQ(parse(100'000, 0), 0);
}

// The blocks of the group's own structures included, if it has any.
TEST_F(EXTParserTest, UninitializedGroupIsFree) {
    make({});
    for (const std::uint32_t block : {0U, 40'000U, 70'000U}) {
        image->use(block);
    }
    image->setUninitialized(1);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{0, 70'000}));
    image->setUninitialized(3);
    image->setUninitialized(0);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{70'000}));
}

// Tools that fill an unmounted volume leave such groups. The table is where the files are.
TEST_F(EXTParserTest, UninitializedGroupWithFilesInItsTableFails) {
    for (const std::uint16_t size : std::vector<std::uint16_t>{0, 64}) {
        make({.descriptorSize = size});
        setSuperBlock(40, 0x12345);
        for (std::uint32_t group = 0; group < image->groups; ++group) {
            image->volume.writeLittle(image->descriptor(group) + 8, 40'000, 4);
            image->volume.writeLittle(image->descriptor(group) + 14, 0x2345, 2);
        }
        image->volume.writeLittle(image->descriptor(1) + 46, 1, 2); // counts in large descriptors only
        image->setUninitialized(2);                                 // its table lies in the group before it
        EXPECT_EQ(parse(), 100'000);
        image->setUninitialized(1);
        EXPECT_EQ(parse(), size == 0 ? -1 : 100'000);
        image->volume.writeLittle(image->descriptor(1) + 14, 0x2344, 2);
        EXPECT_EQ(parse(), -1);
        EXPECT_TRUE(
            record.has(info::level::error, "A group without a block bitmap has files in its inode table"));
    }
}

TEST_F(EXTParserTest, BitmapOfAnUninitializedGroupIsNotRead) {
    make({});
    image->setUninitialized(1);
    image->placeBitmap(1, 0xFFFFFFFF);
    EXPECT_EQ(parse(), 100'000);
}

TEST_F(EXTParserTest, DescriptorsAreAsLargeAsThe64BitFeatureSays) {
    for (const std::uint16_t size : std::vector<std::uint16_t>{32, 64, 128, 1024}) {
        make({.descriptorSize = size});
        for (const std::uint32_t block : {1U, 33'000U, 99'998U}) {
            image->use(block);
        }
        EXPECT_EQ(parse(), 100'000);
        EXPECT_EQ(used(), (Blocks{1, 33'000, 99'998})) << size;
    }
    make({});
    setSuperBlock(254, 64, 2); // counts with the feature only
    image->use(33'000);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{33'000}));
}

TEST_F(EXTParserTest, BitmapsSideBySideAreReadAtOnce) {
    make({});
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(image->volume.requests.size(), 2U); // the table, and all four bitmaps
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
        image->use(block);
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
    image->volume.failReads(std::uint64_t{4096} * 4, std::uint64_t{4096} * 4 + 1); // of the third group
    EXPECT_EQ(parse(), -1);
    EXPECT_EQ(record.lines()[1], (test::RecordingLogger::Line{info::level::error, "Can't read bitmap"}));
    EXPECT_TRUE(record.has(info::level::error, logicalError));
    EXPECT_EQ(parse(98'304), 1696); // the last group alone is well
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
    image->volume.size = 90'000UL * 4096 + 4095; // a device that is smaller than its file system
    EXPECT_EQ(parse(), -1);
    image->volume.size += 1;
    EXPECT_EQ(parse(), 100'000);
}

TEST_F(EXTParserTest, ImpossibleSuperBlocksAreRefused) {
    make({});
    setSuperBlock(24, 7);
    expectRefused("The EXT block size is impossible");
    setSuperBlock(24, 21);
    expectRefused("The EXT block size is impossible");
    setSuperBlock(24, 0xFFFFFFFF);
    expectRefused("The EXT block size is impossible");

    make({});
    setSuperBlock(32, 0);
    expectRefused("The EXT group size is impossible");
    setSuperBlock(32, 32769);
    expectRefused("The EXT group size is impossible");
    setSuperBlock(32, 1);
    expectRefused("The EXT descriptors don't fit in the first group");

    make({});
    setSuperBlock(20, 2);
    expectRefused("The first EXT data block is impossible");
    setSuperBlock(20, 1);
    setSuperBlock(4, 0);
    expectRefused("The first EXT data block is impossible");

    for (const std::uint32_t size : {0U, 1U, 16U, 31U, 33U, 96U, 8192U, 65535U}) {
        make({.descriptorSize = 64});
        setSuperBlock(254, size, 2);
        expectRefused("The EXT descriptor size is impossible");
    }
}

TEST_F(EXTParserTest, LargestCountsCostNothing) {
    make({});
    setSuperBlock(4, 0xFFFFFFFF);
    EXPECT_EQ(parse(), -1);
    setSuperBlock(32, 256);
    setSuperBlock(24, 6);
    EXPECT_EQ(parse(), -1);
    EXPECT_TRUE(record.has(info::level::error, "The EXT descriptors don't fit in the first group"));
}

TEST_F(EXTParserTest, EmptyFileSystemHasNoBlocks) {
    make({});
    setSuperBlock(4, 0);
    EXPECT_EQ(parse(), 0);
}

// A bit stands for a cluster there. Read as blocks, most of what is used would be left out.
TEST_F(EXTParserTest, BitmapsOfClustersAreRefused) {
    make({});
    setSuperBlock(100, 0x200);
    expectRefused("EXT bitmaps of clusters are not supported");
}

// What stands behind the first block of descriptors is not descriptors there.
TEST_F(EXTParserTest, DescriptorsInMetaGroupsAreRefused) {
    make({.logBlockSize = 0, .blocksPerGroup = 8192, .blockCount = 8192 * 33});
    EXPECT_EQ(parse(), 8192 * 33);
    setSuperBlock(96, 0x10);
    expectRefused("EXT descriptors in meta groups are not supported");
    setSuperBlock(260, 1);
    expectRefused("EXT descriptors in meta groups are not supported");
    setSuperBlock(260, 2); // a table of two blocks that stands where it always does
    EXPECT_EQ(parse(), 8192 * 33);
    setSuperBlock(260, 0);
    setSuperBlock(4, 8192UL * 32); // a table of one block
    EXPECT_EQ(parse(), 8192 * 32);
}

TEST_F(EXTParserTest, HighHalfOfTheCountIsNotRead) {
    make({.descriptorSize = 64});
    setSuperBlock(336, 1);
    image->use(50);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{50}));
}

// As the block number would be of another block, whose bits mean nothing.
TEST_F(EXTParserTest, HighHalfOfABitmapsBlockIsNotUsed) {
    make({.descriptorSize = 64});
    image->use(50);
    image->volume.writeLittle(image->descriptor(0) + 32, 1, 4);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{50}));
    setSuperBlock(336, 1); // now it can be meant
    EXPECT_EQ(parse(), -1);
    EXPECT_TRUE(record.has(info::level::error, "Can't read bitmap"));
}

/// The map one bit at a time, straight from the structures.
std::int64_t plainMap(ExtImage& image, std::uint64_t startBlock, std::vector<std::uint8_t>& buffer) {
    const std::uint64_t perGroup = image.geometry.blocksPerGroup;
    const std::uint64_t first = image.firstDataBlock;
    std::uint64_t group = startBlock == 0 ? 0 : (startBlock - first) / perGroup;
    std::uint64_t bit = startBlock == 0 ? 0 : (startBlock - first) - group * perGroup;
    std::int64_t result = 0;
    for (; group < image.groups; ++group, bit = 0) {
        const std::uint64_t descriptor = image.descriptor(static_cast<std::uint32_t>(group));
        const bool uninitialized = (image.volume.at(descriptor + 18) & 2) != 0;
        std::uint64_t map = 0;
        for (unsigned i = 0; i < 4; ++i) {
            map |= std::uint64_t{image.volume.at(descriptor + i)} << (8 * i);
        }
        for (; bit < perGroup && first + perGroup * group + bit < image.geometry.blockCount; ++bit) {
            const std::uint64_t index = first + perGroup * group + bit - startBlock;
            if (index >= buffer.size() * 8) {
                return -1;
            }
            const std::uint8_t byte = image.volume.at(map * image.blockSize + bit / 8);
            if (!uninitialized && (byte >> (bit % 8) & 1) != 0) {
                buffer[index / 8] |= static_cast<std::uint8_t>(1U << (index % 8));
            }
            result = static_cast<std::int64_t>(index) + 1;
        }
    }
    return result;
}

std::unique_ptr<ExtImage> randomImage(std::mt19937& random) {
    const auto logBlockSize = static_cast<std::uint32_t>(random() % 3);
    const auto perGroup = 256 + static_cast<std::uint32_t>(random() % 1000);
    auto made = std::make_unique<ExtImage>(
        Geometry{.logBlockSize = logBlockSize,
                 .blocksPerGroup = perGroup,
                 .blockCount = perGroup + static_cast<std::uint32_t>(random() % 6000),
                 .descriptorSize = static_cast<std::uint16_t>(random() % 2 * 64)});
    ExtImage& image = *made;
    for (std::uint32_t group = 0; group < image.groups; ++group) {
        if (random() % 3 == 0) {
            image.placeBitmap(group, 50 + random() % (perGroup - 50));
        }
        if (random() % 4 == 0) {
            image.setUninitialized(group);
        }
    }
    for (auto block = image.firstDataBlock; block < image.geometry.blockCount; ++block) {
        if (random() % 2 == 0) {
            image.use(block);
        }
    }
    return made;
}

TEST_F(EXTParserTest, MapIsThatOfOneBitAtATime) {
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        image = randomImage(random);
        const std::uint64_t start = random() % 3 == 0 ? 0 : random() % image->geometry.blockCount;
        const std::size_t bytes = 100 + random() % 1000;
        std::vector<std::uint8_t> expected(bytes);
        const std::int64_t result = plainMap(*image, start, expected);
        ASSERT_EQ(parse(start, bytes), result);
        if (result >= 0) {
            ASSERT_EQ(buffer, expected);
        }
    }
}

} // namespace
} // namespace agent::core::fs
