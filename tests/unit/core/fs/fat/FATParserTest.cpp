#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"
#include "unit/core/fs/fat/FATParserFixture.h"

namespace agent::core::fs {
namespace {

TEST_F(FATParserTest, RecognisesTheTypeAlone) {
    make({});
    FATParser parser(record.logger, image->volume, 512);
    EXPECT_TRUE(parser.recognize());
    image->writeType(82, "FAT33");
    EXPECT_FALSE(parser.recognize());
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(FATParserTest, NarrowEntriesAreRefusedByName) {
    for (const auto& [type, line] :
         {std::pair{"FAT12", "FAT12 is not supported"}, {"FAT16", "FAT16 is not supported"}}) {
        make({});
        for (unsigned i = 0; i < 5; ++i) {
            image->volume.at(54 + i) = static_cast<std::uint8_t>(type[i]);
        }
        FATParser parser(record.logger, image->volume, 512);
        record.clear();
        EXPECT_FALSE(parser.recognize());
        EXPECT_EQ(record.lines(), (Lines{{info::level::error, line}}));
    }
}

// On a volume of another file system, boot loader code may contain these letters.
TEST_F(FATParserTest, OtherKindsAreTriedAfterAVolumeThatCallsItselfFAT16) {
    make({});
    image->writeType(54, "FAT16");
    image->volume.writeLittle(1024 + 56, 0xEF53, 2);
    const auto parser = UsedBlockBitmapChunkProviderFactory(record.logger, 512, &image->volume).create();
    EXPECT_NE(parser, nullptr);
    EXPECT_EQ(record.lines(), (Lines{{info::level::error, "FAT16 is not supported"},
                                     {info::level::debug, "Creating EXT Parser."}}));
}

TEST_F(FATParserTest, UnreadableBootSectorIsNotRecognised) {
    make({});
    FATParser parser(record.logger, image->volume, 512);
    image->volume.failReads(511, 512);
    EXPECT_FALSE(parser.recognize());
    EXPECT_TRUE(record.has(info::level::error, "Can't read fat boot sector"));
    image->volume.failReads(0, 0);
    record.clear();
    image->volume.size = 511;
    EXPECT_FALSE(parser.recognize());
    EXPECT_EQ(record.lines(), (Lines{{info::level::error, "Can't read fat boot sector"}}));
    image->volume.size = 512;
    EXPECT_TRUE(parser.recognize());
}

// 72 sectors of 512 bytes; a cluster has two sectors.
TEST_F(FATParserTest, ReservedSectorsAndFATsAreUsed) {
    make({});
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(used(), before(36, {}));
    EXPECT_EQ(record.lines(), (Lines{{info::level::debug, "returning[3] 2000"}}));
}

TEST_F(FATParserTest, EachEntryStandsForACluster) {
    make({});
    image->setEntry(2, FatImage::endOfChain);
    image->setEntry(3, 4);
    image->setEntry(4, 0x0FFFFFFF);
    image->setEntry(image->clusters + 1, 1);
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(used(), before(39, {1999}));
}

TEST_F(FATParserTest, BadClusterIsFree) {
    make({});
    image->setEntry(100, FatImage::bad);
    image->setEntry(101, FatImage::bad + 1);
    image->setEntry(102, FatImage::bad - 1);
    image->setEntry(103, 0xF0000000 | FatImage::bad);
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(used(), before(36, {36 + 99, 36 + 100}));
}

TEST_F(FATParserTest, TopFourBitsOfAnEntryMeanNothing) {
    make({});
    image->setEntry(100, 0xF0000000);
    image->setEntry(101, 0x10000000);
    image->setEntry(102, 0xF0000001);
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(used(), before(36, {36 + 100}));
}

// The data area begins in the middle of block 36.
TEST_F(FATParserTest, StraddlingBlockIsUsedIfEitherClusterIs) {
    make({.reservedSectors = 33});
    image->setEntry(100, FatImage::endOfChain); // in blocks 134 and 135
    image->setEntry(200, FatImage::endOfChain);
    image->setEntry(201, FatImage::bad);
    image->setEntry(2, FatImage::endOfChain); // in blocks 36 and 37
    EXPECT_EQ(parse(), 2000);
    EXPECT_EQ(used(), before(38, {134, 135, 234, 235}));
}

TEST_F(FATParserTest, LastClusterMayEndInTheLastBlock) {
    make({.reservedSectors = 33, .totalSectors = 4001});
    image->setEntry(image->clusters + 1, FatImage::endOfChain);
    EXPECT_EQ(parse(), 2001);
    EXPECT_EQ(used(), before(37, {1999, 2000}));
}

TEST_F(FATParserTest, PieceOfAClusterAtTheEndIsFree) {
    for (const std::uint32_t sectors : {4000U, 4001U}) {
        make({.reservedSectors = static_cast<std::uint16_t>(sectors == 4000 ? 33 : 32),
              .totalSectors = sectors});
        EXPECT_EQ(parse(), sectors == 4000 ? 2000 : 2001);
        EXPECT_EQ(used(), before(sectors == 4000 ? 37 : 36, {}));
    }
}

TEST_F(FATParserTest, CountOf16BitsComesFirst) {
    make({});
    image->volume.writeLittle(19, 3000, 2);
    EXPECT_EQ(parse(), 1500);
}

TEST_F(FATParserTest, NothingIsLeftAtTheEnd) {
    make({});
    for (const std::uint64_t start : {2000UL, 2001UL, (1UL << 32U) + 5, UINT64_MAX}) {
        record.clear();
        EXPECT_EQ(parse(start), 0);
        EXPECT_EQ(used(), Blocks{});
        EXPECT_EQ(record.lines(), (Lines{{info::level::debug, "returning[3] 0"}}));
        EXPECT_TRUE(image->volume.requests.empty());
    }
    EXPECT_EQ(parse(0, 0), 0);
}

TEST_F(FATParserTest, BufferIsFilledAndTheRestIsLeft) {
    make({});
    image->setEntry(2 + 64, FatImage::endOfChain);
    EXPECT_EQ(parse(40, 16), 128);
    EXPECT_EQ(used(40), (Blocks{36 + 64}));
    EXPECT_EQ(parse(1999, 16), 1);
}

TEST_F(FATParserTest, StartWithinTheMetadataReadsFromTheFirstCluster) {
    make({});
    image->setEntry(2, FatImage::endOfChain);
    image->setEntry(5, FatImage::endOfChain);
    EXPECT_EQ(parse(30), 1970);
    EXPECT_EQ(used(30), (Blocks{30, 31, 32, 33, 34, 35, 36, 39}));
    EXPECT_EQ(parse(36), 1964);
    EXPECT_EQ(used(36), (Blocks{36, 39}));
}

TEST_F(FATParserTest, UnreadableFATFails) {
    make({});
    for (const std::uint64_t at : {image->fatOffset, image->fatOffset + 7999}) {
        image->volume.failReads(at, at + 1);
        record.clear();
        EXPECT_EQ(parse(), -1);
        const Lines lines = record.lines();
        ASSERT_EQ(lines.size(), 3U);
        EXPECT_EQ(lines[0].text.find("CHUNK READ FILE FAILED: OFFSET: "), 0U);
        EXPECT_EQ(lines[1], (test::RecordingLogger::Line{info::level::debug, "returning[2] -1"}));
        EXPECT_EQ(lines[2], (test::RecordingLogger::Line{info::level::error, fatLogicalError + "-1"}));
    }
}

TEST_F(FATParserTest, FATThatTheDeviceEndsInFails) {
    make({});
    for (const std::uint64_t size : {image->fatOffset, image->fatOffset + 3, image->fatOffset + 7000}) {
        image->volume.size = size;
        record.clear();
        EXPECT_EQ(parse(), -400);
        EXPECT_EQ(record.lines(), (Lines{{info::level::debug, "returning[2] -400"},
                                         {info::level::error, fatLogicalError + "-400"}}));
    }
}

TEST_F(FATParserTest, BlockIsAsLargeAsACluster) {
    for (const std::uint16_t sector : std::vector<std::uint16_t>{512, 1024, 2048, 4096}) {
        for (unsigned sectors = 1; sectors <= 128; sectors *= 2) {
            make({.bytesPerSector = sector, .sectorsPerCluster = static_cast<std::uint8_t>(sectors)});
            FATParser parser(record.logger, image->volume, 512);
            ASSERT_TRUE(parser.recognize());
            EXPECT_EQ(parser.getBlockSize(), sector * sectors);
        }
    }
    make({});
    image->volume.writeLittle(13, 3, 1);
    FATParser parser(record.logger, image->volume, 512);
    ASSERT_TRUE(parser.recognize());
    EXPECT_EQ(parser.getBlockSize(), 0U);
}

/// 2 TiB of clusters of 32 KiB; each FAT has 256 MiB.
Geometry largeGeometry(std::uint16_t reservedSectors) {
    return {.sectorsPerCluster = 64,
            .reservedSectors = reservedSectors,
            .sectorsPerFat = 1U << 19U,
            .totalSectors = 0xFFFFFFFF};
}

TEST_F(FATParserTest, LargestVolumeIsReadInPieces) {
    for (const std::uint16_t reserved : std::vector<std::uint16_t>{64, 65}) {
        make(largeGeometry(reserved));
        const std::uint64_t first = (1U << 20U) / 64 + 1; // the first block of the data area
        const std::uint64_t more = reserved - 64U;
        for (const std::uint64_t cluster : {0UL, 262'141UL, 262'142UL, 262'143UL, image->clusters - 1}) {
            image->setEntry(cluster + 2, FatImage::endOfChain);
        }
        Blocks expected = before(first + more, {});
        for (const std::uint64_t cluster : {0UL, 262'141UL, 262'142UL, 262'143UL, image->clusters - 1}) {
            expected.insert(first + cluster);
            expected.insert(first + cluster + more);
        }
        EXPECT_EQ(parse(0, 8UL << 20U), 1UL << 26U);
        EXPECT_EQ(used(), expected);
        for (const auto& request : image->volume.requests) {
            EXPECT_LE(request.length, 1U << 20U);
        }
        EXPECT_LT(image->volume.requests.size(), 260U + 4);
    }
}

} // namespace
} // namespace agent::core::fs
