#include "core/fs/fat/FATParser.h"

#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"
#include "support/FatImage.h"
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

using test::FatImage;
using Geometry = FatImage::Geometry;
using Blocks = std::set<std::uint64_t>;
using Lines = std::vector<test::RecordingLogger::Line>;

const std::string logicalError = "A logical error occurred while attempting to parse the FAT bitmap, err: ";

class FATParserTest : public testing::Test {
protected:
    void make(Geometry geometry) { image = std::make_unique<FatImage>(geometry); }

    /// The parser's result for the image from `startBlock` on. Each call uses a new parser.
    std::int64_t parse(std::uint64_t startBlock = 0, std::size_t bytes = 4096) {
        FATParser parser(record.logger, image->volume, 512);
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

    /// All blocks before `end`, and `others`.
    static Blocks before(std::uint64_t end, Blocks others) {
        for (std::uint64_t block = 0; block < end; ++block) {
            others.insert(block);
        }
        return others;
    }

    void expectRefused(const std::string& reason) {
        record.clear();
        EXPECT_EQ(parse(), -1);
        EXPECT_EQ(record.lines(),
                  (Lines{{info::level::error, reason}, {info::level::error, logicalError + "-1"}}));
        EXPECT_TRUE(image->volume.requests.empty()) << "something was read";
    }

    /// Expects that a valid volume with one changed number in its boot sector is refused.
    void expectRefusedWith(std::uint64_t offset, std::uint64_t value, unsigned width,
                           const std::string& reason) {
        make({});
        EXPECT_GT(parse(), 0);
        image->volume.writeLittle(offset, value, width);
        expectRefused(reason);
    }

    test::RecordingLogger record;
    std::unique_ptr<FatImage> image;
    std::vector<std::uint8_t> buffer;
};

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
        EXPECT_EQ(lines[2], (test::RecordingLogger::Line{info::level::error, logicalError + "-1"}));
    }
}

TEST_F(FATParserTest, FATThatTheDeviceEndsInFails) {
    make({});
    for (const std::uint64_t size : {image->fatOffset, image->fatOffset + 3, image->fatOffset + 7000}) {
        image->volume.size = size;
        record.clear();
        EXPECT_EQ(parse(), -400);
        EXPECT_EQ(record.lines(), (Lines{{info::level::debug, "returning[2] -400"},
                                         {info::level::error, logicalError + "-400"}}));
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
                                         {info::level::error, logicalError + "-1"}}));
    }
    for (const std::uint32_t entry : {0xFFFFFFF0U, 0x0FFFFF00U}) {
        make({});
        image->setEntry(0, entry);
        EXPECT_EQ(parse(40), 1960);
    }
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

/// Whether any byte of a block is metadata or belongs to a used cluster.
bool isUsed(FatImage& image, const std::vector<std::uint32_t>& entries, std::uint64_t block) {
    const std::uint64_t end = std::min((block + 1) * image.clusterBytes, image.bytes);
    for (std::uint64_t byte = block * image.clusterBytes; byte < end; byte += image.geometry.bytesPerSector) {
        if (byte < image.dataOffset) {
            return true;
        }
        const std::uint64_t cluster = (byte - image.dataOffset) / image.clusterBytes;
        const std::uint32_t entry = cluster < image.clusters ? entries[cluster] & 0x0FFFFFFF : 0;
        if (entry != 0 && entry != FatImage::bad) {
            return true;
        }
    }
    return false;
}

Geometry randomGeometry(std::mt19937& random) {
    const auto below = [&random](std::uint32_t end) { return static_cast<std::uint32_t>(random() % end); };
    Geometry geometry{.bytesPerSector = static_cast<std::uint16_t>(512U << below(4)),
                      .sectorsPerCluster = static_cast<std::uint8_t>(1U << below(8)),
                      .reservedSectors = static_cast<std::uint16_t>(1 + below(200)),
                      .fatCount = static_cast<std::uint8_t>(1 + below(3))};
    const std::uint32_t clusters = 1 + below(1500);
    geometry.sectorsPerFat = (4 * (clusters + 2) - 1) / geometry.bytesPerSector + 1 + below(3);
    geometry.totalSectors = geometry.reservedSectors + geometry.sectorsPerFat * geometry.fatCount +
                            clusters * geometry.sectorsPerCluster + below(geometry.sectorsPerCluster);
    return geometry;
}

std::uint32_t randomEntry(std::mt19937& random) {
    const std::vector<std::uint32_t> values{0,
                                            0,
                                            0,
                                            0xF0000000,
                                            FatImage::bad,
                                            FatImage::bad | 0x30000000U,
                                            FatImage::endOfChain,
                                            2 + static_cast<std::uint32_t>(random() % 1000)};
    return values[random() % values.size()];
}

std::vector<std::uint32_t> fillFAT(FatImage& image, std::mt19937& random) {
    std::vector<std::uint32_t> entries(image.clusters);
    for (std::uint64_t cluster = 0; cluster < image.clusters; ++cluster) {
        entries[cluster] = randomEntry(random);
        image.setEntry(cluster + 2, entries[cluster]);
    }
    return entries;
}

/// Compares the bitmap with a reference. If no cluster ends in the last block, that block may be reported
/// either way: when the FAT is full, the parser takes the bytes after it for the block's entry.
class FATMapTest : public FATParserTest {
protected:
    void makeRandom() {
        make(randomGeometry(random));
        const std::vector<std::uint32_t> entries = fillFAT(*image, random);
        expected.resize(image->blocks);
        for (std::uint64_t block = 0; block < image->blocks; ++block) {
            expected[block] = isUsed(*image, entries, block);
        }
        isLastOpen = image->dataOffset + image->clusters * image->clusterBytes <=
                     (image->blocks - 1) * image->clusterBytes;
    }

    void expectPiece(std::uint64_t start, std::size_t bytes) {
        const auto count =
            static_cast<std::int64_t>(std::min(image->blocks - start, std::uint64_t{bytes} * 8));
        ASSERT_EQ(parse(start, bytes), count);
        const Blocks found = used(start);
        for (std::uint64_t block = start; block < start + static_cast<std::uint64_t>(count); ++block) {
            if (block + 1 < image->blocks || !isLastOpen) {
                ASSERT_EQ(found.contains(block), expected[block]) << "block " << block;
            }
        }
        ASSERT_TRUE(found.empty() || *found.rbegin() < start + static_cast<std::uint64_t>(count));
    }

    std::mt19937 random{11};
    std::vector<bool> expected;
    bool isLastOpen = false;
};

TEST_F(FATMapTest, IsThatOfOneByteAtATime) {
    for (int round = 0; round < 400; ++round) {
        makeRandom();
        ASSERT_NO_FATAL_FAILURE(expectPiece(0, image->blocks / 8 + 1)) << round;
    }
}

TEST_F(FATMapTest, IsTheSameInPieces) {
    for (int round = 0; round < 100; ++round) {
        makeRandom();
        const std::size_t bytes = 1 + random() % 100;
        for (std::uint64_t start = random() % 3; start < image->blocks; start += bytes * 8) {
            ASSERT_NO_FATAL_FAILURE(expectPiece(start, bytes)) << round;
        }
    }
}

} // namespace
} // namespace agent::core::fs
