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
#include <sstream>
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

    /// The parser's result for the image from `startBlock` on. Each call uses a new parser.
    std::int64_t parse(std::uint64_t startBlock = 0, std::size_t bytes = 65536) {
        EXTParser parser(record.logger, image->volume, 512);
        EXPECT_TRUE(parser.recognize());
        image->volume.requests.clear();
        buffer.assign(bytes, 0xa5);
        return parser.getBitmapChunk(startBlock, buffer.data(), buffer.size());
    }

    /// The blocks whose bits are set in the buffer. The first bit is that of `startBlock`.
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
    EXPECT_EQ(parse(0, 12'500), 100'000); // exactly large enough
    EXPECT_EQ(parse(0, 12'499), -1);
    EXPECT_EQ(record.lines(), (Lines{{info::level::error, logicalError}}));
    EXPECT_EQ(parse(8, 12'499), 99'992);
    EXPECT_EQ(parse(0, 0), -1);
    EXPECT_EQ(parse(100'000, 0), 0);
}

// Of the four groups of 32768 blocks, the second and the fourth also have a superblock and descriptors.
TEST_F(EXTParserTest, UninitializedGroupHasItsStructuresAndNothingElse) {
    make({});
    for (const std::uint32_t block : {0U, 40'000U, 70'000U}) {
        image->setUsed(block);
    }
    image->setUninitialized(1);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{0, 32768, 32769, 70'000}));
    image->setUninitialized(2);
    image->setUninitialized(3);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{0, 32768, 32769, 98'304, 98'305}));
    image->setUninitialized(0); // its bitmap is in the third block
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{0, 1, 2, 32768, 32769, 98'304, 98'305}));
    EXPECT_EQ(parse(32769), 67'231);
    EXPECT_EQ(used(32769), (Blocks{32769, 98'304, 98'305}));
}

// Unless a feature says that the flags are valid, the bitmap is read.
TEST_F(EXTParserTest, FlagOfAGroupCountsWithChecksumsOnly) {
    for (const std::uint32_t features : {0x1U, 0x10U, 0x400U, 0x410U}) {
        make({});
        setSuperBlock(100, features);
        image->setUsed(70'000);
        image->setUninitialized(2);
        EXPECT_EQ(parse(), 100'000);
        EXPECT_EQ(used(), (features == 1 ? Blocks{70'000} : Blocks{65'536, 65'537})) << features;
        if (features != 1) {
            setSuperBlock(100, features | 1U); // superblocks in some groups only, not in this one
            EXPECT_EQ(parse(), 100'000);
            EXPECT_EQ(used(), Blocks{});
        }
    }
}

/// No group has an initialized bitmap, so only the groups with a superblock have used blocks. Groups have 256
/// blocks of 1 KiB.
class EXTBackupsTest : public EXTParserTest {
protected:
    void SetUp() override {
        make({.logBlockSize = 0, .blocksPerGroup = 256, .blockCount = 1 + 256 * 60});
        for (std::uint32_t group = 0; group < image->groups; ++group) {
            image->setUninitialized(group);
            image->placeBitmap(group, 40'000); // far outside of the group
        }
    }

    /// The groups whose first block is used. Expects that each starts with `blocks` used blocks and has no
    /// others.
    Blocks groupsWithHeads(std::uint64_t blocks) {
        EXPECT_EQ(parse(), 1 + 256 * 60);
        Blocks groups;
        Blocks expected{0}; // the boot block
        for (std::uint64_t group = 0; group < 60; ++group) {
            if (used().contains(1 + 256 * group)) {
                groups.insert(group);
                for (std::uint64_t block = 0; block < blocks; ++block) {
                    expected.insert(1 + 256 * group + block);
                }
            }
        }
        EXPECT_EQ(used(), expected);
        return groups;
    }

    const Blocks sparse{0, 1, 3, 5, 7, 9, 25, 27, 49};
};

TEST_F(EXTBackupsTest, StandInPowersOfThreeFiveAndSeven) {
    EXPECT_EQ(groupsWithHeads(3), sparse); // 32 of the 60 descriptors fit in one block
}

TEST_F(EXTBackupsTest, StandInEachGroupWithoutTheFeature) {
    setSuperBlock(100, ExtImage::checksums);
    EXPECT_EQ(groupsWithHeads(3).size(), 60U);
}

TEST_F(EXTBackupsTest, StandInTheGroupsThatAreNamed) {
    setSuperBlock(92, 0x200);
    setSuperBlock(588, 1);
    setSuperBlock(592, 59);
    EXPECT_EQ(groupsWithHeads(3), (Blocks{0, 1, 59}));
    setSuperBlock(588, 0);
    setSuperBlock(592, 0);
    EXPECT_EQ(groupsWithHeads(3), Blocks{0});
}

TEST_F(EXTBackupsTest, HaveRoomForMoreDescriptorsBehindThem) {
    setSuperBlock(206, 100, 2);
    EXPECT_EQ(groupsWithHeads(103), sparse);
    setSuperBlock(206, 65535, 2);
    EXPECT_EQ(groupsWithHeads(256), sparse); // limited to the blocks of a group
}

TEST_F(EXTBackupsTest, HaveDescriptorsUpToTheFirstMetaGroup) {
    setSuperBlock(96, 0x10);
    setSuperBlock(260, 2);
    EXPECT_EQ(groupsWithHeads(3), sparse);
}

// A meta group has one block of descriptors, with copies in its second and its last group.
TEST_F(EXTBackupsTest, OfAMetaGroupStandInThreeGroups) {
    setSuperBlock(96, 0x10);
    setSuperBlock(4, 1 + 256UL * 32);
    EXPECT_EQ(parse(), 1 + 256 * 32);
    Blocks expected{0};
    for (const std::uint64_t group : {0U, 1U, 3U, 5U, 7U, 9U, 25U, 27U}) {
        expected.insert(1 + 256 * group);
    }
    expected.merge(Blocks{2, 258, 1 + 256 * 31});
    EXPECT_EQ(used(), expected);
}

TEST_F(EXTParserTest, InodesOfAnUninitializedGroupAreUsedWhereTheyLieInIt) {
    for (const std::uint16_t size : std::vector<std::uint16_t>{0, 64}) {
        make({.descriptorSize = size});
        image->setUninitialized(2);
        image->placeBitmap(2, 65'540);
        image->placeInodes(2, 65'550, 65'560, 3);
        EXPECT_EQ(parse(), 100'000);
        EXPECT_EQ(used(), (Blocks{65'540, 65'550, 65'560, 65'561, 65'562}));
        EXPECT_EQ(parse(65'550), 34'450);
        EXPECT_EQ(used(65'550), (Blocks{65'550, 65'560, 65'561, 65'562}));
        image->placeInodes(2, 5, 98'303, 3); // with flexible block groups they may be in any group
        EXPECT_EQ(parse(), 100'000);
        EXPECT_EQ(used(), (Blocks{65'540, 98'303}));
        image->placeInodes(2, 98'304, 65'530, 7);
        EXPECT_EQ(parse(), 100'000);
        EXPECT_EQ(used(), (Blocks{65'536, 65'540}));
        setSuperBlock(40, 0xFFFFFFFF);
        setSuperBlock(88, 0xFFFF, 2);
        image->placeBitmap(2, 3);
        EXPECT_EQ(parse(), 100'000);
        EXPECT_EQ(used().size(), 32'768U);
        setSuperBlock(76, 0); // inodes of the first revision have 128 bytes
        setSuperBlock(40, 33);
        EXPECT_EQ(parse(), 100'000);
        EXPECT_EQ(used(), Blocks{});
        image->volume.writeLittle(image->descriptor(2) + 8, 65'600, 4);
        EXPECT_EQ(parse(), 100'000);
        EXPECT_EQ(used(), (Blocks{65'600, 65'601}));
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
    EXPECT_TRUE(record.has(info::level::error, logicalError));
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

// These numbers would lead to divisions by zero, shifts by too many bits, or a bitmap that isn't where it is
// read.
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

TEST_F(EXTParserTest, FirstGroupBeginsWithTheSuperBlock) {
    make({.logBlockSize = 0, .blocksPerGroup = 8192});
    setSuperBlock(20, 0);
    expectRefused("The first EXT data block is impossible");
    make({.logBlockSize = 1, .blocksPerGroup = 8192});
    setSuperBlock(20, 1);
    expectRefused("The first EXT data block is impossible");
}

TEST_F(EXTParserTest, TellsTheSizeOfItsBlocks) {
    for (const std::uint32_t exponent : {0U, 2U, 6U, 7U, 0xFFFFFFFFU}) {
        make({});
        setSuperBlock(24, exponent);
        EXTParser parser(record.logger, image->volume, 512);
        ASSERT_TRUE(parser.recognize());
        EXPECT_EQ(parser.getBlockSize(), exponent <= 6 ? 1024U << exponent : 0U);
    }
}

// The bitmaps may show blocks as free that the unreplayed journal uses.
TEST_F(EXTParserTest, JournalThatNeedsRecoveryIsRefused) {
    make({});
    setSuperBlock(96, 0x4);
    expectRefused("The EXT journal needs recovery, so the bitmaps may be out of date");
    setSuperBlock(96, 0x80000046);
    expectRefused("The EXT journal needs recovery, so the bitmaps may be out of date");
}

TEST_F(EXTParserTest, FeaturesThatLeaveTheBitmapsAloneAreRead) {
    for (unsigned bit = 0; bit < 32; ++bit) {
        make({});
        setSuperBlock(92, 1U << bit); // a compatible feature, which even a writer may ignore
        EXPECT_EQ(parse(), 100'000) << bit;
    }
    make({.descriptorSize = 64});
    setSuperBlock(96, 0x3e7d2); // all others have their own tests
    setSuperBlock(100, 0x1b57f);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_TRUE(record.lines().empty());
}

std::string hexOf(std::uint32_t number) {
    std::ostringstream text;
    text << "0x" << std::hex << number;
    return text.str();
}

// An unknown feature may change what the bitmaps mean. Its name tells the administrator why the volume is
// copied whole.
TEST_F(EXTParserTest, FeaturesThatAreNotKnownAreRefusedByName) {
    const auto refusedFor = [this](std::uint64_t offset, std::uint32_t features, const std::string& names) {
        make({});
        setSuperBlock(offset, features);
        expectRefused("EXT bitmaps can't be read with these features: " + names);
    };
    refusedFor(96, 0x1 | 0x2, "incompat compression");
    refusedFor(96, 0x8, "incompat journal_dev");
    refusedFor(96, 0x1000, "incompat dirdata");
    refusedFor(100, 0x80, "ro_compat has_snapshot");
    refusedFor(100, 0x800, "ro_compat replica");
    refusedFor(100, 0x4000, "ro_compat shared_blocks");
    for (const unsigned bit : {5U, 11U, 18U, 19U, 30U, 31U}) {
        refusedFor(96, 1U << bit, "incompat " + hexOf(1U << bit));
    }
    for (unsigned bit = 17; bit < 32; ++bit) {
        refusedFor(100, 1U << bit, "ro_compat " + hexOf(1U << bit));
    }
    make({});
    setSuperBlock(96, 0x80000009);
    setSuperBlock(100, 0x40000081);
    expectRefused(
        "EXT bitmaps can't be read with these features: incompat compression, incompat journal_dev, "
        "incompat 0x80000000, ro_compat has_snapshot, ro_compat 0x40000000");
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

// With this feature a bit stands for a cluster of blocks. Read as bits of blocks, most used blocks would be
// missed.
TEST_F(EXTParserTest, BitmapsOfClustersAreRefused) {
    make({});
    setSuperBlock(100, 0x200);
    expectRefused("EXT bitmaps of clusters are not supported");
}

// With meta groups, what follows the first block of descriptors isn't descriptors.
TEST_F(EXTParserTest, DescriptorsInMetaGroupsAreRefused) {
    make({.logBlockSize = 0, .blocksPerGroup = 8192, .blockCount = 8192 * 33});
    EXPECT_EQ(parse(), 8192 * 33);
    setSuperBlock(96, 0x10);
    expectRefused("EXT descriptors in meta groups are not supported");
    setSuperBlock(260, 1);
    expectRefused("EXT descriptors in meta groups are not supported");
    setSuperBlock(260, 2); // the table of two blocks is still in its usual place
    EXPECT_EQ(parse(), 8192 * 33);
    setSuperBlock(260, 0);
    setSuperBlock(4, 8192UL * 32); // a table of one block
    EXPECT_EQ(parse(), 8192 * 32);
}

TEST_F(EXTParserTest, HighHalfOfTheCountIsNotRead) {
    make({.descriptorSize = 64});
    setSuperBlock(336, 1);
    image->setUsed(50);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{50}));
}

// Otherwise the bitmap would be read from another block, whose bits mean nothing.
TEST_F(EXTParserTest, HighHalfOfABitmapsBlockIsNotUsed) {
    make({.descriptorSize = 64});
    image->setUsed(50);
    image->volume.writeLittle(image->descriptor(0) + 32, 1, 4);
    EXPECT_EQ(parse(), 100'000);
    EXPECT_EQ(used(), (Blocks{50}));
    setSuperBlock(336, 1); // the file system now has that many blocks
    EXPECT_EQ(parse(), -1);
    EXPECT_TRUE(record.has(info::level::error, "Can't read bitmap"));
}

/// Whether a block, counted from the start of its group, belongs to the structures of a group without a
/// bitmap.
bool isStructure(ExtImage& image, std::uint64_t group, std::uint64_t bit, std::uint64_t map) {
    const Blocks withBackups{0, 1, 3, 5, 7, 9, 25, 27};
    const std::uint64_t tableBlocks =
        (std::uint64_t{image.stride} * image.groups + image.blockSize - 1) / image.blockSize;
    return (withBackups.contains(group) && bit < 1 + tableBlocks) ||
           image.firstDataBlock + image.geometry.blocksPerGroup * group + bit == map;
}

/// Reference implementation: computes the bitmap one bit at a time, straight from the structures.
std::int64_t referenceMap(ExtImage& image, std::uint64_t startBlock, std::vector<std::uint8_t>& buffer) {
    const std::uint64_t perGroup = image.geometry.blocksPerGroup;
    const std::uint64_t first = image.firstDataBlock;
    std::uint64_t group = startBlock == 0 ? 0 : (startBlock - first) / perGroup;
    std::uint64_t bit = startBlock == 0 ? 0 : (startBlock - first) - group * perGroup;
    std::int64_t result = 0;
    if (startBlock < first) {
        buffer[0] = 1;
    }
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
            if (uninitialized ? isStructure(image, group, bit, map) : (byte >> (bit % 8) & 1) != 0) {
                buffer[index / 8] |= static_cast<std::uint8_t>(1U << (index % 8));
            }
            result = static_cast<std::int64_t>(index) + 1;
        }
    }
    return result;
}

// Small images with random geometry. Some bitmaps are moved, and some groups are uninitialized.
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
            image.setUsed(block);
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
        const std::int64_t result = referenceMap(*image, start, expected);
        ASSERT_EQ(parse(start, bytes), result);
        if (result >= 0) {
            ASSERT_EQ(buffer, expected);
        }
    }
}

} // namespace
} // namespace agent::core::fs
