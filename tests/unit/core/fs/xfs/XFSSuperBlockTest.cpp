#include "unit/core/fs/xfs/XFSParserFixture.h"

namespace agent::core::fs {
namespace {

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

} // namespace
} // namespace agent::core::fs
