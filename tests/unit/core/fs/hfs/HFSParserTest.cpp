#include "core/fs/hfs/HFSParser.h"

#include "support/HfsImage.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace agent::core::fs {
namespace {

using test::HfsImage;
using Geometry = HfsImage::Geometry;
using Extents = HfsImage::Extents;
using Blocks = std::set<std::uint64_t>;
using Texts = std::vector<std::string>;

const std::string logicalError = "A logical error occurred while attempting to parse the HFS bitmap, err: -1";

class HFSParserTest : public testing::Test {
protected:
    HFSParserTest() { make({}); }

    void make(Geometry geometry) { image = std::make_unique<HfsImage>(std::move(geometry)); }

    /// The parser's result for the image from `startBlock` on. Each call uses a new parser.
    std::int64_t parse(std::uint64_t startBlock = 0, std::size_t bytes = 65536) {
        HFSParser parser(record.logger, image->volume, 512);
        EXPECT_TRUE(parser.recognize());
        record.clear();
        image->volume.requests.clear();
        buffer.assign(bytes, 0);
        return parser.getBitmapChunk(startBlock, buffer.data(), buffer.size());
    }

    /// The blocks, among the first `count`, whose bits are set in the buffer. The first bit is that of
    /// `startBlock`.
    [[nodiscard]] Blocks used(std::uint64_t count, std::uint64_t startBlock = 0) const {
        Blocks blocks;
        for (std::uint64_t bit = 0; bit < count; ++bit) {
            if ((buffer.at(bit / 8) << (bit % 8) & 0x80) != 0) {
                blocks.insert(startBlock + bit);
            }
        }
        return blocks;
    }

    void expectRefused(const std::string& reason) {
        EXPECT_EQ(parse(), -1);
        EXPECT_EQ(record.texts(info::level::error), (Texts{reason, logicalError}));
    }

    test::RecordingLogger record;
    std::unique_ptr<HfsImage> image;
    std::vector<std::uint8_t> buffer;
};

TEST_F(HFSParserTest, RecognisesBothSignaturesAtByte0) {
    HFSParser parser(record.logger, image->volume, 512);
    EXPECT_TRUE(parser.recognize());
    image->set(0, 0x4858, 2);
    EXPECT_TRUE(parser.recognize());
    image->set(0, 0x4859, 2);
    EXPECT_FALSE(parser.recognize());
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(HFSParserTest, HeaderAtByte1024IsNotLookedFor) {
    image->copyHeader();
    image->set(0, 0, 2);
    HFSParser parser(record.logger, image->volume, 512);
    EXPECT_FALSE(parser.recognize());
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(HFSParserTest, UnreadableHeaderIsNotRecognised) {
    image->volume.failReads(511, 512);
    HFSParser parser(record.logger, image->volume, 512);
    EXPECT_FALSE(parser.recognize());
    EXPECT_EQ(record.texts(info::level::error), (Texts{"Error reading HFS+ superblock."}));
    image->volume.failReads(0, 0);
    image->volume.size = 511;
    EXPECT_FALSE(parser.recognize());
}

TEST_F(HFSParserTest, MapIsThatOfTheDisk) {
    image->setUsed(999);
    image->setUsed(9);
    EXPECT_EQ(parse(), 1000);
    EXPECT_EQ(used(1000), (Blocks{0, 5, 9, 100, 101, 102, 103, 104, 105, 106, 107, 999}));
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(HFSParserTest, FirstBlockOfAByteIsItsHighestBit) {
    EXPECT_TRUE(HFSParser(record.logger, image->volume, 512).isBitmapMsbFirst());
    parse();
    EXPECT_EQ(buffer[0], 0x84); // blocks 0 and 5
}

TEST_F(HFSParserTest, TellsTheSizeOfABlockIfItCanBe) {
    HFSParser parser(record.logger, image->volume, 512);
    EXPECT_EQ(parser.getBlockSize(), 0U);
    for (const std::uint32_t size : {512U, 4096U, 65536U, 1048576U}) {
        image->set(40, size);
        ASSERT_TRUE(parser.recognize());
        EXPECT_EQ(parser.getBlockSize(), size);
    }
    for (const std::uint32_t size : {0U, 1U, 256U, 1536U, 2097152U, 0x80000000U, 0xFFFFFFFFU}) {
        image->set(40, size);
        ASSERT_TRUE(parser.recognize());
        EXPECT_EQ(parser.getBlockSize(), 0U);
        expectRefused("The HFS+ block size is impossible");
    }
}

TEST_F(HFSParserTest, NothingBehindTheLastBlock) {
    EXPECT_EQ(parse(1000), 0);
    EXPECT_EQ(parse(1001), 0);
    EXPECT_EQ(parse(UINT64_MAX), 0);
    EXPECT_TRUE(record.lines().empty());
    EXPECT_TRUE(image->volume.requests.empty());
}

TEST_F(HFSParserTest, StartWithinAByteIsRefused) {
    HFSParser parser(record.logger, image->volume, 512);
    ASSERT_TRUE(parser.recognize());
    buffer.resize(100);
    EXPECT_EQ(parser.getBitmapChunk(4, buffer.data(), buffer.size()), -1);
    EXPECT_EQ(record.texts(info::level::error), (Texts{"startBlock must be divisible by 8", logicalError}));
}

TEST_F(HFSParserTest, SpareBitsOfTheLastByteAreNotReported) {
    make({.totalBlocks = 1003});
    EXPECT_EQ(parse(), 1003);
    EXPECT_EQ(parse(1000), 3);
    EXPECT_EQ(parse(0, 126), 1003);
    EXPECT_EQ(parse(0, 125), 1000);
}

TEST_F(HFSParserTest, BufferWithoutRoomGetsNothing) {
    EXPECT_EQ(parse(0, 0), 0);
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(HFSParserTest, PiecesAreThoseOfTheWhole) {
    make({.blockSize = 512, .totalBlocks = 20000, .bitmap = {{50, 1}, {60, 2}, {40, 1}, {700, 1}}});
    for (std::uint32_t block = 3000; block < 20000; block += 7) {
        image->setUsed(block);
    }
    ASSERT_EQ(parse(), 20000);
    const std::vector<std::uint8_t> whole = buffer;
    for (const std::size_t bytes : {1UL, 100UL, 512UL, 513UL, 3000UL}) {
        for (std::uint64_t start = 0; start < 20000;) {
            const std::int64_t blocks = parse(start, bytes);
            ASSERT_GT(blocks, 0);
            const auto end = buffer.begin() + (blocks + 7) / 8;
            ASSERT_TRUE(
                std::equal(buffer.begin(), end, whole.begin() + static_cast<std::int64_t>(start / 8)));
            start += static_cast<std::uint64_t>(blocks);
        }
    }
}

TEST_F(HFSParserTest, EightExtentsThatHaveTheWholeBitmapCountAsNone) {
    Extents eight;
    for (std::uint32_t i = 0; i < 8; ++i) {
        eight.emplace_back(10 + 2 * i, 1);
    }
    make({.blockSize = 512, .totalBlocks = 30000, .bitmap = eight});
    EXPECT_EQ(parse(), 0);
    EXPECT_TRUE(record.lines().empty());
    eight.pop_back();
    make({.blockSize = 512, .totalBlocks = 28000, .bitmap = eight});
    EXPECT_EQ(parse(), 28000);
}

TEST_F(HFSParserTest, BitmapWithoutExtentsCountsAsNone) {
    image->setFork(HfsImage::allocationFork, {}, 125);
    EXPECT_EQ(parse(), 0);
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(HFSParserTest, ReadsAsDeviceAndBlocksDemand) {
    for (const std::uint32_t blockSize : {512U, 4096U, 65536U, 1048576U}) {
        make({.blockSize = blockSize, .totalBlocks = 2000});
        for (const std::uint32_t sectorSize : {0U, 512U, 4096U}) {
            HFSParser parser(record.logger, image->volume, sectorSize);
            ASSERT_TRUE(parser.recognize());
            image->volume.requests.clear();
            buffer.assign(250, 0);
            EXPECT_EQ(parser.getBitmapChunk(0, buffer.data(), buffer.size()), 2000);
            const std::uint32_t unit = std::max(blockSize, sectorSize == 0 ? 4096 : sectorSize);
            EXPECT_EQ(image->volume.requests.back().offset, 5UL * blockSize / unit * unit);
            EXPECT_EQ(image->volume.requests.back().length, unit);
        }
    }
}

TEST_F(HFSParserTest, LargeBitmapIsReadInPieces) {
    make({.blockSize = 512, .totalBlocks = 40'000'000, .bitmap = {{201, 9766}}});
    image->setUsed(39'999'999);
    EXPECT_EQ(parse(0, 5'000'000), 40'000'000);
    EXPECT_EQ(buffer.at(4'999'999), 1);
    EXPECT_TRUE(std::ranges::all_of(image->volume.requests,
                                    [](const auto& request) { return request.length <= 1024UL * 1024; }));
}

TEST_F(HFSParserTest, UnreadableBitmapFails) {
    const std::uint64_t bitmap = 5UL * 4096;
    image->volume.failReads(bitmap + 100, bitmap + 101);
    expectRefused("Error in HFS+ parsing read.");
    image->volume.failReads(0, 0);
    image->volume.size = bitmap + 124; // one byte too small
    expectRefused("Error in HFS+ parsing read.");
    image->volume.size = bitmap + 4096;
    EXPECT_EQ(parse(), 1000);
}

TEST_F(HFSParserTest, BitmapThatIsTooSmallIsRefused) {
    const std::string reason = "The HFS+ bitmap is too small for the volume";
    image->setFork(HfsImage::allocationFork, {{5, 1}}, 124);
    expectRefused(reason);
    make({.blockSize = 512, .totalBlocks = 9000, .bitmap = {{5, 2}}});
    image->set(HfsImage::allocationFork, 1125, 8);
    expectRefused(reason);
}

TEST_F(HFSParserTest, ExtentsThatAreNotAsManyBlocksAsTheBitmapAreRefused) {
    const std::string reason = "The extents of the HFS+ bitmap aren't as many blocks as it has";
    image->set(HfsImage::allocationFork + 12, 0);
    expectRefused(reason);
    image->setFork(HfsImage::allocationFork, {{5, 1}, {0, 0}, {7, 1}}, 125); // the empty extent ends the list
    expectRefused(reason);
}

TEST_F(HFSParserTest, ExtentsThatCannotBeTheBitmapAreRefused) {
    for (const Extents& extents :
         {Extents{{0, 1}}, Extents{{1000, 1}}, Extents{{999, 2}}, Extents{{0xFFFFFFFF, 1}},
          Extents{{5, 1}, {9, 0}, {7, 1}}, Extents{{5, 0xFFFFFFFF}}}) {
        image->setFork(HfsImage::allocationFork, extents, 125);
        expectRefused("An HFS+ extent is impossible");
    }
    image->setFork(HfsImage::allocationFork, {{9, 1}, {5, 5}}, 125);
    expectRefused("HFS+ extents of one file overlap");
}

TEST_F(HFSParserTest, BitmapThatIsNoneIsRefused) {
    const std::string reason = "The HFS+ bitmap has its own blocks as free";
    for (const std::uint32_t block : {0U, 5U, 100U, 107U}) {
        image->setUsed(block, false);
        expectRefused(reason);
        image->setUsed(block);
    }
    EXPECT_EQ(parse(), 1000);
    image->setUsed(104, false);
    EXPECT_EQ(parse(0, 13), 104); // the requested chunk ends before it
    EXPECT_EQ(parse(104, 13), -1);
    EXPECT_EQ(parse(112, 13), 104);
}

TEST_F(HFSParserTest, UnknownVersionIsRefused) {
    for (const unsigned version : {0U, 3U, 6U, 0xFFFFU}) {
        image->set(2, version, 2);
        expectRefused("The version of HFS+ is unknown");
    }
    image->set(2, 5, 2);
    EXPECT_EQ(parse(), 1000);
}

TEST_F(HFSParserTest, JournalThatMayHaveToBeReplayedIsRefused) {
    image->set(4, 0x2000);
    expectRefused("The HFS+ journal may have to be replayed, so the bitmap may be out of date");
    image->set(4, 0x2100);
    EXPECT_EQ(parse(), 1000);
    image->set(4, 0); // mounted and without a journal, but frozen for the snapshot
    EXPECT_EQ(parse(), 1000);
}

TEST_F(HFSParserTest, VolumeThatNeedsRepairIsRefused) {
    image->set(4, 0x900);
    expectRefused("The HFS+ volume needs repair");
}

TEST_F(HFSParserTest, HeaderCountsAsLongAsTheUsualOneSaysTheSame) {
    image->copyHeader();
    EXPECT_EQ(parse(), 1000);
    for (const std::uint64_t field : {40U, 44U, 119U, 124U, 128U, 188U, 204U, 208U}) {
        image->volume.at(1024 + field) ^= 1;
        expectRefused("The HFS+ headers differ");
        image->volume.at(1024 + field) ^= 1;
    }
    image->volume.at(1024 + 48) ^= 1; // the count of free blocks changes all the time
    EXPECT_EQ(parse(), 1000);
}

TEST_F(HFSParserTest, JournalOfTheUsualHeaderCounts) {
    image->copyHeader();
    image->volume.writeBig(1024 + 4, 0x2000, 4);
    expectRefused("The HFS+ journal may have to be replayed, so the bitmap may be out of date");
}

TEST_F(HFSParserTest, UsualPlaceThatCannotBeReadIsRefused) {
    image->volume.failReads(1024, 1025);
    expectRefused("The usual place of the HFS+ header can't be read");
}

} // namespace
} // namespace agent::core::fs
