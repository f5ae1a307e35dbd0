#include "unit/core/fs/xfs/XFSParserFixture.h"

#include <algorithm>

namespace agent::core::fs {
namespace {

using Lines = std::vector<test::RecordingLogger::Line>;

TEST_F(XFSParserTest, RecognisesItsMagicAndTellsWhatItFound) {
    make({});
    XFSParser parser(record.logger, image->volume, 512);
    EXPECT_TRUE(parser.recognize());
    constexpr int debug = info::level::debug;
    EXPECT_EQ(record.lines(), (Lines{{debug, "magic 0x58465342"},
                                     {debug, "block_size 4096"},
                                     {debug, "ag_count 2"},
                                     {debug, "ag_blocks 1000"},
                                     {debug, "total_blocks 2000"},
                                     {debug, "version 46245"}}));
    record.clear();
    image->volume.at(3) = 'C';
    EXPECT_FALSE(parser.recognize());
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(XFSParserTest, UnreadableSuperBlockIsNotRecognised) {
    make({});
    XFSParser parser(record.logger, image->volume, 512);
    image->volume.size = 511;
    EXPECT_FALSE(parser.recognize());
    EXPECT_TRUE(record.has(info::level::error, "Can't read super block."));
    image->volume.size = 512;
    EXPECT_TRUE(parser.recognize());
    image->volume.failReads(0, 1);
    EXPECT_FALSE(parser.recognize());
}

TEST_F(XFSParserTest, NothingFreeIsAllUsed) {
    make({});
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(free(2000), Blocks{});
}

TEST_F(XFSParserTest, RootThatIsALeafIsMarkedAtOnce) {
    for (const bool crc : {true, false}) {
        make({.crc = crc});
        image->setLeaf(0, 4, {{10, 5}, {900, 100}});
        image->setRoot(0, 4);
        image->setLeaf(1, 4, {{20, 1}});
        image->setRoot(1, 4);
        EXPECT_EQ(parse(), 2000);
        Blocks expected = run(10, 5);
        expected.merge(run(900, 100));
        expected.insert(1020);
        EXPECT_EQ(free(2000), expected);
    }
}

// Every structure that is read is logged with its address and fields, so that a wrong map can be traced.
TEST_F(XFSParserTest, LogsTheWalkOfAGroup) {
    make({.agCount = 1, .totalBlocks = 1000});
    image->setFreeList(0, 2, 2, 1);
    image->setFreeListEntry(0, 2, 77);
    image->setLeaf(0, 4, {{10, 5}});
    image->setRoot(0, 4);
    EXPECT_EQ(parse(0, 125), 1000);
    std::vector<std::string> texts;
    for (const auto& line : record.lines()) {
        EXPECT_EQ(line.level, info::level::debug);
        texts.push_back(line.text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"buf off = 0, buffer_size = 125",
                                               "Iterating over allocation group(s) 0 - 1",
                                               "Reading the free space info.",
                                               "fsi addr = 512",
                                               "magic 0x58414746",
                                               "fl_first 2",
                                               "fl_last 2",
                                               "offset_bt_root 4",
                                               "Reading the allocation group free list.",
                                               "agfl addr = 1536, len = 512",
                                               "Marking free list",
                                               "0: 77 -> 1",
                                               "Reading the root b+ node.",
                                               "btn addr = 16384",
                                               "---BTN HERE---",
                                               "magic 0x41423342",
                                               "level 0",
                                               "num_recs 1",
                                               "left_sib 4294967295",
                                               "right_sib 4294967295",
                                               "---BTN END---",
                                               "0: 10 -> 5",
                                               "count = 6"}));
}

// There may be millions of records with a line each.
TEST_F(XFSParserTest, LinesOfRecordsAreNotMadeForNobody) {
    make({});
    image->setLeaf(0, 4, {{10, 5}});
    image->setRoot(0, 4);
    info::Logger quiet(
        [this](const std::string& message, int level, info::LogTime time) {
            record.logger.print(message, level);
            (void)time;
        },
        [](int level) { return level < info::level::debug; });
    XFSParser parser(quiet, image->volume, 512);
    ASSERT_TRUE(parser.recognize());
    buffer.assign(250, 0);
    EXPECT_EQ(parser.getBitmapChunk(0, buffer.data(), buffer.size()), 2000);
    EXPECT_TRUE(record.has(info::level::debug, "fl_first 1"));
    EXPECT_FALSE(record.has(info::level::debug, "0: 10 -> 5"));
    EXPECT_FALSE(record.has(info::level::debug, "---BTN HERE---"));
}

TEST_F(XFSParserTest, FreeListIsARunOfItsArray) {
    for (const bool crc : {true, false}) {
        make({.crc = crc});
        for (std::uint32_t index = 0; index < 119; ++index) {
            image->setFreeListEntry(0, index, 100 + index);
        }
        image->setFreeList(0, 5, 5, 1);
        EXPECT_EQ(parse(), 2000);
        EXPECT_EQ(free(2000), run(105, 1));
        image->setFreeList(0, 116, 118, 3);
        EXPECT_EQ(parse(), 2000);
        EXPECT_EQ(free(2000), run(216, 3));
        image->setFreeList(0, 117, 1, 4); // wraps around
        EXPECT_EQ(parse(), 2000);
        EXPECT_EQ(free(2000), Blocks{});
        image->setFreeList(0, 0, 1, 2);
        EXPECT_EQ(parse(), 2000);
        EXPECT_EQ(free(2000), run(100, 2));
    }
}

TEST_F(XFSParserTest, LastGroupMayBeShorter) {
    make({.totalBlocks = 1500});
    image->setLeaf(1, 4, {{490, 10}});
    image->setRoot(1, 4);
    EXPECT_EQ(parse(), 1500);
    EXPECT_EQ(free(1500), run(1490, 10));
    image->setLeaf(1, 4, {{490, 11}});
    expectFailure("XFS: Free blocks outside of their allocation group.");
}

// With sectors of 4096 bytes, the free list on disk is longer than the part that is read.
TEST_F(XFSParserTest, FreeListEndsWithWhatIsRead) {
    make({.sectorSize = 4096});
    for (std::uint32_t index = 0; index < 200; ++index) {
        image->setFreeListEntry(0, index, 100 + index);
    }
    image->setFreeList(0, 117, 130, 14);
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(free(2000), run(217, 2));
    image->setFreeList(0, 1, 0xFFFFFFFF, 0xFFFFFFFF);
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(free(2000), run(101, 118));
    image->setFreeList(0, 0xFFFFFFFF, 0xFFFFFFFF, 1);
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(free(2000), Blocks{});
}

// The array keeps entries that were taken for files or for the tree. An empty list has valid indexes, too,
// and some kernels use an array with one entry fewer.
TEST_F(XFSParserTest, FreeListWhoseCountDisagreesMarksNothing) {
    make({});
    for (std::uint32_t index = 0; index < 119; ++index) {
        image->setFreeListEntry(0, index, 100 + index);
    }
    const auto marksNothing = [this](std::uint32_t first, std::uint32_t last, std::uint32_t count) {
        image->setFreeList(0, first, last, count);
        EXPECT_EQ(parse(), 2000);
        EXPECT_EQ(free(2000), Blocks{}) << first << " to " << last << ": " << count;
    };
    marksNothing(0, 118, 0);
    marksNothing(0, 117, 0);
    marksNothing(0, 117, 117);
    marksNothing(0, 117, 119);
    marksNothing(5, 5, 0);
    marksNothing(5, 5, 2);
    marksNothing(6, 5, 0);
    marksNothing(5, 9, 4);
    marksNothing(5, 9, 0xFFFFFFFF);
    marksNothing(0, 0xFFFFFFFF, 0);
    marksNothing(0xFFFFFFFF, 0, 2);
    image->setFreeList(0, 0, 117, 118);
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(free(2000), run(100, 118));
    image->setFreeList(0, 0, 118, 119);
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(free(2000), run(100, 119));
}

TEST_F(XFSParserTest, UnreadableFreeSpaceInfoFails) {
    make({});
    image->volume.failReads(image->freeSpaceInfo(1), image->freeSpaceInfo(1) + 1);
    expectFailure("Can't read fsi block.");
    image->volume.failReads(0, 0);
    image->volume.at(image->freeSpaceInfo(1)) = 'Y';
    expectFailure("Invalid fsi magic number.");
}

TEST_F(XFSParserTest, UnreadableFreeListFails) {
    make({});
    image->volume.failReads(image->freeListEntry(1, 0), image->freeListEntry(1, 0) + 1);
    EXPECT_EQ(parse(), -1);
    EXPECT_TRUE(record.has(info::level::error, xfsLogicalError));
}

TEST_F(XFSParserTest, FreeListEntryOutsideOfTheGroupFails) {
    make({});
    image->setFreeList(0, 3, 3, 1);
    image->setFreeListEntry(0, 3, 1000);
    expectFailure("XFS: Free blocks outside of their allocation group.");
    image->setFreeListEntry(0, 3, 0xFFFFFFFF);
    expectFailure("XFS: Free blocks outside of their allocation group.");
}

TEST_F(XFSParserTest, StartBehindTheEndIsNothing) {
    make({});
    EXPECT_EQ(parse(2000), 0);
    EXPECT_EQ(parse(2001), 0);
    EXPECT_EQ(parse(UINT64_MAX), 0);
}

TEST_F(XFSParserTest, StartWithinAByteFailsSilently) {
    make({});
    EXPECT_EQ(parse(12), -1);
    EXPECT_EQ(record.lines(), (Lines{{info::level::debug, "buf off = 12, buffer_size = 250"},
                                     {info::level::error, xfsLogicalError}}));
}

TEST_F(XFSParserTest, BufferIsFilledAndTheRestComesLater) {
    make({});
    image->setLeaf(0, 4, {{90, 20}, {990, 10}});
    image->setRoot(0, 4);
    image->setLeaf(1, 4, {{8, 10}});
    image->setRoot(1, 4);
    EXPECT_EQ(parse(0, 12), 96);
    EXPECT_EQ(free(96), run(90, 6));
    EXPECT_TRUE(record.has(info::level::debug, "count = 6"));
    EXPECT_EQ(parse(96, 12), 96);
    EXPECT_EQ(free(96, 96), run(96, 14));
    EXPECT_EQ(parse(992, 4), 32);
    Blocks expected = run(992, 8);
    expected.merge(run(1008, 10));
    EXPECT_EQ(free(32, 992), expected);
    EXPECT_EQ(parse(1992, 4), 8);
}

// The inversion is limited by the volume's size, not by the number of blocks that remain after `first`.
TEST_F(XFSParserTest, BufferLargerThanTheVolumeStaysClearBehindIt) {
    make({});
    for (const std::uint64_t first : {0U, 1992U}) {
        EXPECT_EQ(parse(first, 300), 2000 - first);
        EXPECT_TRUE(
            std::all_of(buffer.begin(), buffer.begin() + 250, [](auto byte) { return byte == 0xff; }));
        EXPECT_TRUE(std::all_of(buffer.begin() + 250, buffer.end(), [](auto byte) { return byte == 0; }));
    }
}

} // namespace
} // namespace agent::core::fs
