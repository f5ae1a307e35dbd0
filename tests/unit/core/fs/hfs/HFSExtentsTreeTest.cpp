#include "core/fs/hfs/HFSParser.h"
#include "support/HfsImage.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace agent::core::fs {
namespace {

using test::HfsImage;
using Extents = HfsImage::Extents;
using Lines = std::vector<test::RecordingLogger::Line>;
using Texts = std::vector<std::string>;

constexpr auto child = &HfsImage::child;
constexpr std::uint32_t blocks = 7000 * 8; // the bitmap takes up 14 blocks of 512 bytes

/// A bitmap of 14 extents, six of which are in the extents tree.
class HFSExtentsTreeTest : public testing::Test {
protected:
    HFSExtentsTreeTest() {
        make();
        image->setNode(1, HfsImage::index, {child(2)});
        image->setNode(2, HfsImage::leaf, {image->bitmapFrom(8)});
    }

    void make(Extents tree = {{600, 40}}, std::uint16_t nodeSize = 512, std::uint32_t pieces = 14,
              std::uint32_t totalBlocks = blocks) {
        HfsImage::Geometry geometry{.blockSize = 512,
                                    .totalBlocks = totalBlocks,
                                    .bitmap = {},
                                    .tree = std::move(tree),
                                    .nodeSize = nodeSize};
        for (std::uint32_t i = 0; i < pieces; ++i) {
            geometry.bitmap.emplace_back(10 + 3 * i, 1);
        }
        image = std::make_unique<HfsImage>(geometry);
    }

    std::int64_t parse() {
        HFSParser parser(record.logger, image->volume, 512);
        EXPECT_TRUE(parser.recognize());
        record.clear();
        buffer.assign(65536, 0);
        return parser.getBitmapChunk(0, buffer.data(), buffer.size());
    }

    void expectRead() {
        image->setUsed(image->geometry.totalBlocks - 1);
        EXPECT_EQ(parse(), image->geometry.totalBlocks);
        EXPECT_EQ(buffer.at((image->geometry.totalBlocks - 1) / 8), 1);
        EXPECT_EQ(record.lines(), (Lines{{info::level::debug, "Bitmap extents overflow file needed."}}));
    }

    void expectRefused(const std::string& reason) {
        EXPECT_EQ(parse(), -1);
        EXPECT_TRUE(record.has(info::level::debug, "Bitmap extents overflow file needed."));
        EXPECT_EQ(record.texts(info::level::error),
                  (Texts{reason, "Couldn't parse extent overflow file for bitmap extents.",
                         "A logical error occurred while attempting to parse the HFS bitmap, err: -1"}));
    }

    test::RecordingLogger record;
    std::unique_ptr<HfsImage> image;
    std::vector<std::uint8_t> buffer;
};

TEST_F(HFSExtentsTreeTest, HasTheExtentsBehindTheEighth) {
    expectRead();
}

TEST_F(HFSExtentsTreeTest, RecordsOfOtherFilesArePassed) {
    image->setNode(2, HfsImage::leaf,
                   {HfsImage::extentsOf(5, 8, {{9000, 1}}), image->bitmapFrom(8),
                    HfsImage::extentsOf(20, 8, {{9001, 1}})});
    expectRead();
}

TEST_F(HFSExtentsTreeTest, RecordWithoutAPlaceIsNone) {
    image->setNode(2, HfsImage::leaf, {HfsImage::extentsOf(6, 7, {}), image->bitmapFrom(8)});
    image->setRecordOffset(2, 0, 0);
    image->setNode(1, HfsImage::index, {child(9), child(2), child(0)});
    image->setRecordOffset(1, 0, 0);
    expectRead();
}

TEST_F(HFSExtentsTreeTest, NodesOfHeaderAndMapArePassed) {
    image->setNode(1, HfsImage::index, {child(4), child(2), child(5)});
    image->setNode(4, 1, {});
    image->setNode(5, 2, {});
    expectRead();
}

TEST_F(HFSExtentsTreeTest, LeavesComeInTheOrderOfTheirParents) {
    make({{600, 40}}, 512, 30, 30U * 512 * 8);
    image->setNode(1, HfsImage::index, {child(5), child(4)});
    image->setNode(5, HfsImage::index, {child(9), child(3)});
    image->setNode(4, HfsImage::index, {child(2)});
    image->setNode(9, HfsImage::leaf, {image->bitmapFrom(8)});
    image->setNode(3, HfsImage::leaf, {image->bitmapFrom(16)});
    image->setNode(2, HfsImage::leaf, {image->bitmapFrom(24)});
    expectRead();
}

TEST_F(HFSExtentsTreeTest, ListWithoutAnEmptyPlaceCountsAsNone) {
    make({{600, 40}}, 512, 16, 16U * 512 * 8);
    image->setNode(1, HfsImage::index, {child(2)});
    image->setNode(2, HfsImage::leaf, {image->bitmapFrom(8)});
    EXPECT_EQ(parse(), 0);
    EXPECT_EQ(record.lines(), (Lines{{info::level::debug, "Bitmap extents overflow file needed."}}));
}

TEST_F(HFSExtentsTreeTest, MapsNodesThroughAllExtents) {
    make({{600, 2}, {700, 3}, {650, 3}});
    image->setNode(1, HfsImage::index, {child(6)});
    HfsImage elsewhere(image->geometry);
    elsewhere.geometry.tree = {{650, 3}}; // node 6 is the second node there
    elsewhere.setNode(1, HfsImage::leaf, {image->bitmapFrom(8)});
    for (std::uint64_t offset = 651UL * 512; offset < 652UL * 512; ++offset) {
        image->volume.at(offset) = elsewhere.volume.at(offset);
    }
    expectRead();
}

TEST_F(HFSExtentsTreeTest, NodeInTwoPiecesIsRefused) {
    make({{600, 3}, {700, 3}}, 1024);
    image->setNode(0, 1, {});
    image->setRoot(1);
    expectRefused("A node of the HFS+ extents file is in two pieces");
}

TEST_F(HFSExtentsTreeTest, ItsOwnOverflowIsRefused) {
    image->set(HfsImage::extentsFork + 12, 41);
    expectRefused("Extent overflow file cannot contain an overflow of itself");
}

TEST_F(HFSExtentsTreeTest, ExtentsThatCannotBeItsAreRefused) {
    image->setFork(HfsImage::extentsFork, {{blocks - 1, 2}}, 1024);
    expectRefused("An HFS+ extent is impossible");
    image->setFork(HfsImage::extentsFork, {{0, 2}}, 1024);
    expectRefused("An HFS+ extent is impossible");
    image->setFork(HfsImage::extentsFork, {{600, 2}, {601, 1}}, 1024);
    expectRefused("HFS+ extents of one file overlap");
}

TEST_F(HFSExtentsTreeTest, UnreadableHeaderFails) {
    image->volume.failReads(image->tree() + 14, image->tree() + 15);
    expectRefused("Could not read B-Tree header");
    image->volume.failReads(0, 0);
    image->volume.size = image->tree() + 14 + 105;
    expectRefused("Could not read B-Tree header");
}

TEST_F(HFSExtentsTreeTest, ImpossibleSizeOfNodesIsRefused) {
    for (const unsigned size : {0U, 1U, 256U, 513U, 1536U, 4095U, 0xFFFFU}) {
        image->volume.writeBig(image->tree() + 14 + 18, size, 2);
        expectRefused("The node size of the HFS+ extents file is impossible");
    }
}

TEST_F(HFSExtentsTreeTest, TooManyNodesAreRefused) {
    const std::uint32_t most = 1U << 22U;
    image->set(44, most + 2000);
    image->setFork(HfsImage::extentsFork, {{600, most}}, 0);
    const auto nodesOf = [&](std::uint32_t count) {
        image->setFork(HfsImage::extentsFork, {{600, count}}, 0);
        parse();
        return record.has(info::level::error, "The HFS+ extents file is too large");
    };
    EXPECT_FALSE(nodesOf(most));
    EXPECT_TRUE(nodesOf(most + 1));
}

TEST_F(HFSExtentsTreeTest, RootBehindTheFirstExtentIsRefused) {
    make({{600, 2}, {700, 2}});
    for (const std::uint32_t root : {2U, 3U, 0xFFFFFFFFU}) {
        image->setRoot(root);
        expectRefused("First node starts past the end of the extent");
    }
    image->setFork(HfsImage::extentsFork, {}, 0);
    image->volume.writeBig(14 + 18, 512, 2); // the bytes that are then read as the tree's header
    expectRefused("First node starts past the end of the extent");
}

TEST_F(HFSExtentsTreeTest, UnreadableRootFails) {
    image->volume.failReads(image->node(1) + 511, image->node(1) + 512);
    expectRefused("Failed to read node descriptor");
}

TEST_F(HFSExtentsTreeTest, RootThatIsNoIndexFails) {
    for (const std::uint8_t kind : {HfsImage::leaf, std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{3}}) {
        image->volume.at(image->node(1) + 8) = kind;
        expectRefused("First node is not an index node");
    }
}

TEST_F(HFSExtentsTreeTest, NodeBehindTheEndFails) {
    image->setNode(1, HfsImage::index, {child(2), child(40)});
    expectRefused("Node 40 starts past the end of the extent");
    image->setNode(1, HfsImage::index, {child(0xFFFFFFFF), child(2)});
    expectRefused("Node 4294967295 starts past the end of the extent");
}

TEST_F(HFSExtentsTreeTest, NodeBeforeTheFirstExtentFails) {
    make({{600, 2}, {500, 2}});
    image->setNode(1, HfsImage::index, {child(2)});
    expectRefused("Node offset starts before the start of the extent");
}

TEST_F(HFSExtentsTreeTest, UnreadableNodeFails) {
    image->volume.failReads(image->node(2), image->node(2) + 1);
    expectRefused("Could not read next node at " + std::to_string(image->node(2)));
}

TEST_F(HFSExtentsTreeTest, UnknownKindOfNodeFails) {
    image->volume.at(image->node(2) + 8) = 'x';
    expectRefused("HFS+ unknown node type x");
}

TEST_F(HFSExtentsTreeTest, NodeThatIsNamedTwiceIsRefused) {
    const std::string reason = "A node of the HFS+ extents file is named twice";
    image->setNode(1, HfsImage::index, {child(2), child(2)});
    expectRefused(reason);
    image->setNode(1, HfsImage::index, {child(1)});
    expectRefused(reason);
    image->setNode(1, HfsImage::index, {child(4)});
    image->setNode(4, HfsImage::index, {child(5)});
    image->setNode(5, HfsImage::index, {child(4)});
    expectRefused(reason);
}

TEST_F(HFSExtentsTreeTest, MoreNodesThanThereAreAreRefused) {
    make({{600, 4}});
    image->setNode(1, HfsImage::index, {child(2), child(3), child(2), child(3), child(2)});
    expectRefused("The HFS+ extents file names more nodes than it has");
}

/// Below the root, bytes after the last record of an index node are read as another record.
TEST_F(HFSExtentsTreeTest, IndexWithSomethingBehindItsRecordsIsRefused) {
    image->setNode(1, HfsImage::index, {child(4)});
    image->setNode(4, HfsImage::index, {child(2)});
    expectRead();
    const std::uint64_t behind = image->node(4) + 14 + child(2).size();
    image->volume.write(behind, child(3));
    expectRefused("An index of the HFS+ extents file has something behind its records");
    image->volume.write(behind, child(0));
    expectRead();
}

TEST_F(HFSExtentsTreeTest, WhatIsBehindTheRecordsOfTheRootIsNotRead) {
    image->volume.write(image->node(1) + 14 + child(2).size(), child(3));
    expectRead();
}

TEST_F(HFSExtentsTreeTest, RecordOutsideOfItsNodeIsRefused) {
    const std::string reason = "A record of the HFS+ extents file is outside of its node";
    for (const std::uint64_t offset : {1U, 13U, 511U, 512U, 0xFFFFU, 509U}) {
        image->setRecordOffset(1, 0, offset);
        expectRefused(reason);
    }
    image->setRecordOffset(1, 0, 14);
    for (const std::uint64_t length : {0xFFFFU, 512U - 14 - 2 - 3}) {
        image->volume.writeBig(image->node(1) + 14, length, 2);
        expectRefused(reason);
    }
    image->volume.writeBig(image->node(1) + 14, 10, 2);
    expectRead();
    image->setRecordOffset(2, 0, 512 - 75);
    image->volume.writeBig(image->node(2) + 512 - 75, 10, 2);
    expectRefused(reason);
}

TEST_F(HFSExtentsTreeTest, MoreRecordsThanFitAreRefused) {
    image->volume.writeBig(image->node(2) + 10, 0xFFFF, 2);
    image->volume.writeBig(image->node(2) + 512 - 4, 0, 2); // the offsets of all other records are invalid
    expectRefused("A record of the HFS+ extents file is outside of its node");
}

TEST_F(HFSExtentsTreeTest, KeyOfAnotherLengthIsRefused) {
    image->volume.writeBig(image->node(2) + 14, 12, 2);
    expectRefused("A key in the HFS+ extents file isn't that of an extent");
}

TEST_F(HFSExtentsTreeTest, ExtentsThatDoNotGoOnAreRefused) {
    const std::string reason = "Overflow extents of the HFS+ bitmap are missing or out of order";
    for (const std::uint32_t start : {0U, 7U, 9U, 0xFFFFFFFFU}) {
        image->volume.writeBig(image->node(2) + 14 + 8, start, 4);
        expectRefused(reason);
    }
    image->setNode(2, HfsImage::leaf, {image->bitmapFrom(8), image->bitmapFrom(8)});
    expectRefused(reason);
    image->setNode(2, HfsImage::leaf, {image->bitmapFrom(8)});
    image->volume.at(image->node(2) + 14 + 2) = 0xFF; // a key of the resource fork
    expectRefused(reason);
}

TEST_F(HFSExtentsTreeTest, TreeThatHasTooFewExtentsIsRefused) {
    const auto refusal = "The extents of the HFS+ bitmap aren't as many blocks as it has";
    image->setNode(2, HfsImage::leaf, {HfsImage::extentsOf(6, 8, {{34, 1}, {37, 1}})});
    EXPECT_EQ(parse(), -1);
    EXPECT_TRUE(record.has(info::level::error, refusal));
    image->setNode(2, HfsImage::leaf, {});
    EXPECT_EQ(parse(), 0); // eight extents are used, and no free slot ends the list
}

} // namespace
} // namespace agent::core::fs
