#include "unit/core/fs/xfs/XFSParserFixture.h"

namespace agent::core::fs {
namespace {

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

} // namespace
} // namespace agent::core::fs
