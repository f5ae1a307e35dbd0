#include "unit/core/fs/ext/EXTParserFixture.h"

#include <sstream>

namespace agent::core::fs {
namespace {

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

} // namespace
} // namespace agent::core::fs
