#include "unit/core/fs/ext/EXTParserFixture.h"

namespace agent::core::fs {
namespace {

// There are four groups of 32768 blocks; the second and the fourth also have a superblock and descriptors.
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

} // namespace
} // namespace agent::core::fs
