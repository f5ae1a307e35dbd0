#include "unit/core/fs/fat/FATParserFixture.h"

namespace agent::core::fs {
namespace {

TEST_F(FATParserTest, ImpossibleClustersAreRefused) {
    for (const std::uint64_t bytes : {0U, 1U, 256U, 513U, 1536U, 8192U, 65535U}) {
        expectRefusedWith(11, bytes, 2, "The FAT cluster size is impossible");
    }
    for (const std::uint64_t sectors : {0U, 3U, 127U, 255U}) {
        expectRefusedWith(13, sectors, 1, "The FAT cluster size is impossible");
    }
}

TEST_F(FATParserTest, VolumeWithoutABootSectorOrAFATIsRefused) {
    expectRefusedWith(14, 0, 2, "The FAT volume has no room for a boot sector and a FAT");
    expectRefusedWith(16, 0, 1, "The FAT volume has no room for a boot sector and a FAT");
}

TEST_F(FATParserTest, FATsThatDontFitOnTheVolumeAreRefused) {
    expectRefusedWith(32, 0, 4, "The FATs don't fit on the volume");
    expectRefusedWith(32, 73, 4, "The FATs don't fit on the volume");
    expectRefusedWith(36, 0xFFFFFFFF, 4, "The FATs don't fit on the volume");
    image->volume.writeLittle(36, 20, 4);
    image->volume.writeLittle(32, 74, 4); // a single cluster
    EXPECT_EQ(parse(), 37);
}

TEST_F(FATParserTest, FATThatIsTooShortIsRefused) {
    make({.sectorsPerFat = 16, .totalSectors = 64 + 2 * 2046});
    ASSERT_EQ(image->clusters, 2046U); // with the two reserved entries, 16 sectors
    EXPECT_GT(parse(), 0);
    image->volume.writeLittle(32, 64 + 2 * 2047, 4);
    expectRefused("The FAT is too short for all clusters");
    expectRefusedWith(36, 0, 4, "The FAT is too short for all clusters");
}

TEST_F(FATParserTest, MoreClustersThanNumbersAreRefused) {
    make({.bytesPerSector = 512, .sectorsPerCluster = 1, .sectorsPerFat = 1U << 21U});
    image->volume.writeLittle(32, 32 + (2U << 21U) + 0x0FFFFFF5U, 4);
    EXPECT_GT(parse(), 0); // the last cluster's number is just below the value for bad clusters
    image->volume.writeLittle(32, 32 + (2U << 21U) + 0x0FFFFFF6U, 4);
    expectRefused("The FAT clusters are too many for their numbers");
}

// Such a volume is FAT16 with a few letters changed; its entries make no sense as 32-bit words.
TEST_F(FATParserTest, NarrowEntriesUnderTheNameOfFAT32AreRefused) {
    expectRefusedWith(22, 20, 2, "The FAT has entries of 12 or 16 bits, though it is called FAT32");
}

// File system drivers look for the clusters after this directory, which shifts them all.
TEST_F(FATParserTest, RootDirectoryInFrontOfTheClustersIsRefused) {
    expectRefusedWith(17, 512, 2, "A FAT32 root directory in front of the clusters is not supported");
}

TEST_F(FATParserTest, OtherVersionsAreRefused) {
    expectRefusedWith(42, 1, 2, "This version of FAT32 is not supported");
    expectRefusedWith(42, 0x100, 2, "This version of FAT32 is not supported");
}

TEST_F(FATParserTest, FirstFATHasToBeTheOneInUse) {
    for (const std::uint64_t fat : {1U, 2U, 15U}) {
        expectRefusedWith(40, 0x80 | fat, 2, "The first FAT is not the one in use, so it may be out of date");
    }
    for (const std::uint64_t flags : {0x80U, 0x01U, 0xFF70U}) { // FAT 0 only; all; undefined bits
        make({});
        image->volume.writeLittle(40, flags, 2);
        EXPECT_EQ(parse(), 2000) << flags;
    }
}

// A boot sector may outlive its file system if another one begins after it.
TEST_F(FATParserTest, FATThatDoesntBeginAsOneIsRefused) {
    const std::string reason = "The FAT doesn't begin as one does, so the boot sector may be a left-over";
    for (const std::uint32_t entry : {0U, 0xFFFFFFFFU >> 8U, 0x0FFFFEF8U, 0x07FFFFF8U}) {
        make({});
        image->setEntry(0, entry);
        record.clear();
        EXPECT_EQ(parse(40), -1);
        EXPECT_EQ(record.lines(), (Lines{{info::level::error, reason},
                                         {info::level::debug, "returning[2] -1"},
                                         {info::level::error, fatLogicalError + "-1"}}));
    }
    for (const std::uint32_t entry : {0xFFFFFFF0U, 0x0FFFFF00U}) {
        make({});
        image->setEntry(0, entry);
        EXPECT_EQ(parse(40), 1960);
    }
}

} // namespace
} // namespace agent::core::fs
