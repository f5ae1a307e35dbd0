#include "core/fs/xfs/XFSParser.h"

#include "support/MemoryVolume.h"
#include "support/RecordingLogger.h"
#include "support/XfsImage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace agent::core::fs {
namespace {

using test::XfsImage;
using Geometry = XfsImage::Geometry;
using Blocks = std::set<std::uint64_t>;
using Lines = std::vector<test::RecordingLogger::Line>;

const std::string logicalError = "A logical error occurred while attempting to parse XFS bitmap, err: -1";

class XFSParserTest : public testing::Test {
protected:
    void make(Geometry geometry) { image = std::make_unique<XfsImage>(geometry); }

    std::int64_t parse(std::uint64_t startBlock = 0, std::size_t bytes = 250) {
        XFSParser parser(record.logger, image->volume, image->geometry.sectorSize);
        EXPECT_TRUE(parser.recognize());
        record.clear();
        image->volume.requests.clear();
        buffer.assign(bytes, 0xa5);
        return parser.getBitmapChunk(startBlock, buffer.data(), buffer.size());
    }

    /// Those of the buffer's first `blocks` blocks whose bits are clear. The first bit is that of
    /// `startBlock`.
    [[nodiscard]] Blocks free(std::uint64_t blocks, std::uint64_t startBlock = 0) const {
        Blocks found;
        for (std::uint64_t bit = 0; bit < blocks; ++bit) {
            if ((buffer[bit / 8] >> (bit % 8) & 1) == 0) {
                found.insert(startBlock + bit);
            }
        }
        return found;
    }

    static Blocks run(std::uint64_t first, std::uint64_t count) {
        Blocks blocks;
        for (std::uint64_t block = first; block < first + count; ++block) {
            blocks.insert(block);
        }
        return blocks;
    }

    void expectFailure(const std::string& reason) {
        EXPECT_EQ(parse(), -1);
        EXPECT_TRUE(record.has(info::level::error, reason)) << reason;
        EXPECT_TRUE(record.has(info::level::error, logicalError));
    }

    test::RecordingLogger record;
    std::unique_ptr<XfsImage> image;
    std::vector<std::uint8_t> buffer;
};

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

class XFSTree : public XFSParserTest {
protected:
    /// A tree of three levels: a root, two nodes below it, and five leaves of one record each.
    void makeTree(bool crc = true) {
        make({.crc = crc});
        image->setRoot(0, 10);
        image->setInternal(0, 10, 2, {11, 12});
        image->setInternal(0, 11, 1, {21, 22, 23}, 12);
        image->setInternal(0, 12, 1, {24, 25});
        for (std::uint32_t leaf = 21; leaf <= 25; ++leaf) {
            image->setLeaf(0, leaf, {{leaf * 10, 3}}, leaf == 25 ? XfsImage::none : leaf + 1);
        }
    }

    [[nodiscard]] static Blocks freeInTree() {
        Blocks blocks;
        for (std::uint64_t leaf = 21; leaf <= 25; ++leaf) {
            blocks.merge(run(leaf * 10, 3));
        }
        return blocks;
    }

    [[nodiscard]] std::uint64_t node(std::uint32_t block) const { return image->address(0, block); }
};

TEST_F(XFSTree, EveryLevelIsWalkedAlongItsSiblings) {
    for (const bool crc : {true, false}) {
        makeTree(crc);
        EXPECT_EQ(parse(), 2000);
        EXPECT_EQ(free(2000), freeInTree());
        EXPECT_TRUE(record.has(info::level::debug, "count = 15"));
    }
}

TEST_F(XFSTree, EveryNodeIsReadOnce) {
    makeTree();
    EXPECT_EQ(parse(), 2000);
    std::set<std::uint64_t> nodes;
    for (const auto& request : image->volume.requests) {
        if (request.length == 4096) {
            EXPECT_TRUE(nodes.insert(request.offset).second) << request.offset;
        }
    }
    EXPECT_EQ(nodes.size(), 9U); // eight of this group, one of the other
}

TEST_F(XFSTree, SiblingsOfTheRootDontCount) {
    make({});
    image->setLeaf(0, 4, {{10, 5}}, 5);
    image->setRoot(0, 4);
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(free(2000), run(10, 5));
}

TEST_F(XFSTree, BadNodesFail) {
    const auto broken = [this](std::uint64_t offset, std::uint64_t value, unsigned width,
                               const std::string& reason) {
        makeTree();
        image->volume.writeBig(offset, value, width);
        SCOPED_TRACE(reason);
        expectFailure(reason);
    };
    makeTree();
    const std::uint64_t root = image->freeSpaceInfo(0) + 16;
    broken(root, 0xFFFFFFFF, 4, "XFS: cannot create null btree node");
    broken(root, 1000, 4, "XFS: btree node outside of its allocation group.");
    broken(node(22), 0x41423341, 4, "XFS: Invalid btree node magic number.");
    broken(node(12), 0, 4, "XFS: Invalid btree node magic number.");
    broken(node(22) + 6, 506, 2, "XFS: Invalid num_recs in btree node."); // 505 fit
    broken(node(11) + 6, 337, 2, "XFS: Invalid num_recs in btree node."); // 336 fit
    broken(node(11) + 6, 0, 2, "XFS: Internal node can't have 0 records.");
    broken(node(21) + 4, 1, 2, "XFS: Invalid level in btree node.");
    broken(node(12) + 4, 0, 2, "XFS: Invalid level in btree node.");
    broken(node(10) + 4, 3, 2, "XFS: Invalid level in btree node.");
    broken(node(10) + 4, 0xFFFF, 2, "XFS: Invalid level in btree node.");
    broken(node(23) + 56, 998, 4, "XFS: Free blocks outside of their allocation group.");
    broken(node(23) + 60, 0xFFFFFFFF, 4, "XFS: Free blocks outside of their allocation group.");
}

TEST_F(XFSTree, MoreRecordsFitWithoutTheCrc) {
    make({.agBlocks = 4000, .agCount = 1, .totalBlocks = 4000, .crc = false});
    XfsImage::Records records(510);
    for (std::uint32_t i = 0; i < records.size(); ++i) {
        records[i] = {100 + 2 * i, 1};
    }
    image->setLeaf(0, 4, records);
    image->setRoot(0, 4);
    EXPECT_EQ(parse(0, 500), 4000);
    EXPECT_EQ(free(4000).size(), 510U);
    image->volume.writeBig(image->address(0, 4) + 6, 511, 2);
    expectFailure("XFS: Invalid num_recs in btree node.");
}

TEST_F(XFSTree, LoopsOfSiblingsEnd) {
    for (const auto& [from, to] : XfsImage::Records{{25, 21}, {25, 23}, {25, 25}, {22, 21}, {21, 21}}) {
        makeTree();
        image->volume.writeBig(node(from) + 12, to, 4);
        expectFailure("XFS: The siblings of a btree node form a loop.");
    }
    makeTree();
    image->volume.writeBig(node(12) + 12, 11, 4);
    expectFailure("XFS: The siblings of a btree node form a loop.");
}

TEST_F(XFSTree, ChildrenThatLeadBackFail) {
    makeTree();
    image->setInternal(0, 11, 1, {10}, 12);
    expectFailure("XFS: Invalid level in btree node.");
    makeTree();
    image->setInternal(0, 10, 2, {10});
    expectFailure("XFS: Invalid level in btree node.");
}

TEST_F(XFSTree, UnreadableNodesFail) {
    const auto unreadable = [this](std::uint64_t begin, std::uint64_t end, const std::string& reason) {
        makeTree();
        image->volume.failReads(begin, end);
        SCOPED_TRACE(reason);
        expectFailure(reason);
    };
    makeTree();
    unreadable(node(22), node(22) + 1, "XFS: cannot read btree node header");
    makeTree();
    image->volume.size = node(25) + 55;
    expectFailure("XFS: cannot read btree node header");
    image->volume.size = node(25) + 63;
    expectFailure("XFS: Can't read records in btree node.");
}

// The records of a large leaf extend past its first sector, and child pointers are stored past it, too.
TEST_F(XFSTree, UnreadablePartsOfNodesFail) {
    makeTree();
    image->setLeaf(0, 22, XfsImage::Records(200, {300, 1}), 23);
    image->volume.failReads(node(22) + 1024, node(22) + 1025);
    expectFailure("XFS: Can't read records in btree node.");
    makeTree();
    image->volume.failReads(node(10) + 56 + 336UL * 8, node(10) + 56 + 336UL * 8 + 1);
    expectFailure("XFS: Can't read children in btree node.");
}

TEST_F(XFSTree, UnreadableRestOfANodeDoesNoHarm) {
    makeTree();
    image->volume.failReads(node(22) + 1024, node(22) + 4096);
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(free(2000), freeInTree());
    makeTree();
    image->volume.size = node(25) + 512; // this cuts off the second group as well
    expectFailure("Can't read fsi block.");
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
    EXPECT_TRUE(record.has(info::level::error, logicalError));
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
                                     {info::level::error, logicalError}}));
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

TEST_F(XFSParserTest, BufferLargerThanTheVolumeStaysClearBehindIt) {
    make({});
    EXPECT_EQ(parse(0, 300), 2000);
    EXPECT_TRUE(std::all_of(buffer.begin(), buffer.begin() + 250, [](auto byte) { return byte == 0xff; }));
    EXPECT_TRUE(std::all_of(buffer.begin() + 250, buffer.end(), [](auto byte) { return byte == 0; }));
}

// The inversion is limited by the volume's size, not by the number of blocks that remain.
TEST_F(XFSParserTest, LaterChunkIsInvertedBehindTheVolume) {
    make({});
    EXPECT_EQ(parse(1992, 300), 8);
    EXPECT_TRUE(std::all_of(buffer.begin(), buffer.begin() + 250, [](auto byte) { return byte == 0xff; }));
    EXPECT_TRUE(std::all_of(buffer.begin() + 250, buffer.end(), [](auto byte) { return byte == 0; }));
}

TEST_F(XFSParserTest, ImpossibleSuperBlocksFail) {
    const auto refused = [this](std::uint64_t offset, std::uint64_t value, unsigned width,
                                const std::string& reason) {
        make({});
        image->volume.writeBig(offset, value, width);
        SCOPED_TRACE(std::to_string(value));
        expectFailure(reason);
        EXPECT_TRUE(image->volume.requests.empty());
    };
    for (const std::uint64_t size : {0UL, 1UL, 256UL, 4095UL, 131072UL, 0x80000000UL, 0xFFFFFFFFUL}) {
        refused(4, size, 4, "XFS: Impossible block size.");
    }
    refused(84, 0, 4, "XFS: Impossible allocation groups.");
    refused(88, 1, 4, "XFS: Impossible allocation groups.");
    refused(8, 2001, 8, "XFS: Impossible allocation groups.");
    refused(8, UINT64_MAX, 8, "XFS: Impossible allocation groups.");
    make({});
    image->volume.writeBig(84, 0xFFFFFFFF, 4);
    image->volume.writeBig(88, 0xFFFFFFFF, 4);
    image->volume.writeBig(8, std::uint64_t{1} << 52, 8);
    expectFailure("XFS: Impossible number of blocks.");
}

// Most disks have logical sectors of 512 bytes and physical sectors of 4096, which the file system uses.
TEST_F(XFSParserTest, SectorsAreThoseOfTheSuperBlock) {
    for (const std::uint32_t sectorSize : {512U, 1024U, 2048U, 4096U}) {
        make({.sectorSize = sectorSize});
        image->setLeaf(1, 4, {{20, 1}});
        image->setRoot(1, 4);
        image->setFreeList(1, 2, 2, 1);
        image->setFreeListEntry(1, 2, 77);
        for (const std::uint32_t ofTheDevice : {0U, 512U, 4096U}) {
            XFSParser parser(record.logger, image->volume, ofTheDevice);
            ASSERT_TRUE(parser.recognize());
            EXPECT_EQ(parser.getBlockSize(), 4096U);
            buffer.assign(250, 0xa5);
            EXPECT_EQ(parser.getBitmapChunk(0, buffer.data(), buffer.size()), 2000);
            EXPECT_EQ(free(2000), (Blocks{1020, 1077}));
        }
    }
}

TEST_F(XFSParserTest, ImpossibleSectorsFail) {
    for (const std::uint32_t size : {0U, 1U, 256U, 513U, 8192U, 32768U}) {
        make({});
        image->volume.writeBig(102, size, 2);
        expectFailure("XFS: Impossible sector size.");
    }
}

TEST_F(XFSParserTest, VolumeThatNeedsRepairFails) {
    make({});
    image->volume.writeBig(216, 0x1b, 4);
    expectFailure("XFS: The volume needs repair.");
}

TEST_F(XFSParserTest, OtherVersionsFail) {
    for (const std::uint32_t version : {0U, 1U, 3U, 6U, 15U}) {
        make({});
        image->volume.writeBig(100, 0xb4a0 | version, 2);
        expectFailure("XFS: Unknown version of the format.");
    }
}

TEST_F(XFSParserTest, FeaturesThatLeaveFreeSpaceAloneAreRead) {
    make({});
    image->volume.writeBig(200, 0xFFFFFFFF, 4); // words that belong to the other format or may be ignored
    image->volume.writeBig(208, 0xFFFFFFFF, 4);
    image->volume.writeBig(220, 0xFFFFFFFF, 4);
    image->volume.writeBig(216, 0x1ef, 4);
    image->volume.writeBig(212, 0xf, 4);
    EXPECT_EQ(parse(), 2000);
    make({.crc = false});
    image->volume.writeBig(100, 0xfff4, 2);
    image->volume.writeBig(200, 0x28a, 4);
    image->volume.writeBig(212, 0xFFFFFFFF, 4);
    image->volume.writeBig(216, 0xFFFFFFFF, 4);
    EXPECT_EQ(parse(), 2000);
    image->volume.writeBig(100, 0x34a4, 2); // without further feature words
    image->volume.writeBig(200, 0xFFFFFFFF, 4);
    EXPECT_EQ(parse(), 2000);
}

TEST_F(XFSParserTest, FeaturesThatAreNotKnownFailByName) {
    const auto refusedFor = [this](bool crc, std::uint64_t offset, std::uint32_t features,
                                   const std::string& names) {
        make({.crc = crc});
        image->volume.writeBig(offset, features, 4);
        expectFailure("XFS: Free space can't be read with these features: " + names);
        EXPECT_TRUE(image->volume.requests.empty());
    };
    refusedFor(true, 216, 0x203, "incompat zoned");
    refusedFor(true, 216, 0x400, "incompat zone_gaps");
    refusedFor(true, 216, 0x80000800, "incompat 0x800, incompat 0x80000000");
    refusedFor(true, 212, 0x10, "ro_compat 0x10");
    refusedFor(true, 212, 0x80000000, "ro_compat 0x80000000");
    refusedFor(false, 200, 0x10, "features2 parent");
    refusedFor(false, 200, 0x405, "features2 0x1, features2 0x4, features2 0x400");
    make({});
    image->volume.writeBig(216, 0x200, 4);
    image->volume.writeBig(212, 0x20, 4);
    expectFailure("XFS: Free space can't be read with these features: incompat zoned, ro_compat 0x20");
}

/// Reference implementation: computes the bitmap one block at a time, straight from the structures, level by
/// level.
class PlainMap {
public:
    PlainMap(XfsImage& image, std::uint64_t startBlock, std::size_t bytes)
        : image(image), startBlock(startBlock), buffer(bytes) {}

    std::vector<std::uint8_t> make() {
        for (std::uint32_t group = 0; group < image.geometry.agCount; ++group) {
            const std::uint64_t info = image.freeSpaceInfo(group);
            for (auto i = big(info + 40, 4); i <= big(info + 44, 4); ++i) {
                mark(group, big(image.freeListEntry(group, static_cast<std::uint32_t>(i)), 4));
            }
            markTree(group, static_cast<std::uint32_t>(big(info + 16, 4)));
        }
        for (std::size_t byte = 0; byte * 8 < image.geometry.totalBlocks && byte < buffer.size(); ++byte) {
            buffer[byte] = static_cast<std::uint8_t>(~buffer[byte]);
        }
        return buffer;
    }

private:
    std::uint64_t big(std::uint64_t offset, unsigned width) {
        std::uint64_t value = 0;
        for (unsigned i = 0; i < width; ++i) {
            value = value << 8 | image.volume.at(offset + i);
        }
        return value;
    }

    void mark(std::uint32_t group, std::uint64_t block) {
        const std::uint64_t absolute = std::uint64_t{group} * image.geometry.agBlocks + block;
        if (absolute >= startBlock && absolute < startBlock + buffer.size() * 8) {
            buffer[(absolute - startBlock) / 8] |=
                static_cast<std::uint8_t>(1U << (absolute - startBlock) % 8);
        }
    }

    void markTree(std::uint32_t group, std::uint32_t root) {
        std::deque<std::uint32_t> queue{root};
        while (!queue.empty()) {
            const std::uint64_t node = image.address(group, queue.back());
            queue.pop_back();
            if (big(node + 4, 2) == 0) {
                markLeaf(group, node);
                continue;
            }
            const std::uint64_t children =
                node + image.headerSize() + (image.geometry.blockSize - image.headerSize()) / 12 * 8UL;
            for (auto child = static_cast<std::uint32_t>(big(children, 4)); child != XfsImage::none;
                 child = static_cast<std::uint32_t>(big(image.address(group, child) + 12, 4))) {
                queue.push_back(child);
            }
        }
    }

    void markLeaf(std::uint32_t group, std::uint64_t node) {
        for (std::uint64_t i = 0; i < big(node + 6, 2); ++i) {
            const std::uint64_t record = node + image.headerSize() + 8 * i;
            for (std::uint64_t block = 0; block < big(record + 4, 4); ++block) {
                mark(group, big(record, 4) + block);
            }
        }
    }

    XfsImage& image;
    std::uint64_t startBlock;
    std::vector<std::uint8_t> buffer;
};

/// Writes a tree of one to three levels with random free extents.
void growTree(XfsImage& image, std::uint32_t group, std::mt19937& random) {
    std::uint32_t next = 4; // block for the next node
    std::vector<std::uint32_t> level;
    const std::uint32_t leaves = 1 + static_cast<std::uint32_t>(random() % 12);
    for (std::uint32_t i = 0; i < leaves; ++i) {
        XfsImage::Records records(random() % 20);
        for (auto& record : records) {
            record = {100 + static_cast<std::uint32_t>(random() % 780),
                      static_cast<std::uint32_t>(random() % 101)};
        }
        image.setLeaf(group, next, records, i + 1 < leaves ? next + 1 : XfsImage::none);
        level.push_back(next++);
    }
    for (std::uint16_t number = 1; level.size() > 1; ++number) {
        std::vector<std::uint32_t> above;
        for (std::size_t i = 0; i < level.size(); i += 4) {
            const auto end = level.begin() + static_cast<std::ptrdiff_t>(std::min(i + 4, level.size()));
            image.setInternal(group, next, number, {level.begin() + static_cast<std::ptrdiff_t>(i), end},
                              i + 4 < level.size() ? next + 1 : XfsImage::none);
            above.push_back(next++);
        }
        level = above;
    }
    image.setRoot(group, level.front());
}

// Random trees and free lists, checked against the reference implementation.
TEST_F(XFSParserTest, MapIsThatOfOneBlockAtATime) {
    std::mt19937 random(11);
    for (int round = 0; round < 300; ++round) {
        make({.blockSize = 512U << random() % 4,
              .agCount = 3,
              .totalBlocks = 2980 + random() % 20,
              .crc = random() % 2 == 0});
        for (std::uint32_t group = 0; group < 3; ++group) {
            growTree(*image, group, random);
            const auto first = static_cast<std::uint32_t>(random() % 119);
            const std::uint32_t last = std::min(118U, first + 5);
            image->setFreeList(group, first, last, last - first + 1);
            for (std::uint32_t index = 0; index < 119; ++index) {
                image->setFreeListEntry(group, index, static_cast<std::uint32_t>(random() % 980));
            }
        }
        image->volume.size = std::uint64_t{3000} * image->geometry.blockSize;
        const std::uint64_t start = random() % 250 * 8;
        const std::size_t bytes = 1 + random() % 400;
        const std::uint64_t left = image->geometry.totalBlocks - start;
        ASSERT_EQ(parse(start, bytes), static_cast<std::int64_t>(std::min<std::uint64_t>(left, bytes * 8)));
        ASSERT_EQ(buffer, PlainMap(*image, start, bytes).make());
    }
}

} // namespace
} // namespace agent::core::fs
