#include "common/AlignedBuffer.h"
#include "unit/core/fs/ntfs/NTFSParserFixture.h"

#include <algorithm>
#include <random>

namespace agent::core::fs {
namespace {

using Runs = NtfsImage::Runs;

TEST_F(NTFSParserTest, NameAloneIsRecognised) {
    test::MemoryVolume volume(4096);
    const std::string name = "NTFS    ";
    volume.write(3, {reinterpret_cast<const std::uint8_t*>(name.data()), name.size()});
    NTFSParser parser(record.logger, volume, 512);
    EXPECT_TRUE(parser.recognize());
    EXPECT_TRUE(record.lines().empty());
    for (std::uint64_t offset = 3; offset < 11; ++offset) {
        volume.at(offset) ^= 1;
        EXPECT_FALSE(parser.recognize());
        volume.at(offset) ^= 1;
    }
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(NTFSParserTest, UnreadableBootSectorIsNotRecognised) {
    make({});
    NTFSParser parser(record.logger, image->volume, 512);
    image->volume.size = 511;
    EXPECT_FALSE(parser.recognize());
    EXPECT_TRUE(record.has(info::level::error, "Can't read ntfs boot sector"));
    image->volume.size = 512;
    EXPECT_TRUE(parser.recognize());
    image->volume.failReads(0, 1);
    EXPECT_FALSE(parser.recognize());
}

TEST_F(NTFSParserTest, OwnRecordOfTheTableIsReadWithTheBootSectorAndNotJudged) {
    make({});
    NTFSParser parser(record.logger, image->volume, 512);
    EXPECT_TRUE(parser.recognize());
    EXPECT_EQ(debugLines(), (std::vector<std::string>{"Reading $MFT for inode 0 at offset 16384"}));
    image->volume.failReads(16384, 16385);
    EXPECT_TRUE(parser.recognize());
    image->volume.failReads(0, 0);
    image->volume.at(image->placeOf(0)) = 'X';
    EXPECT_TRUE(parser.recognize());
    EXPECT_TRUE(hasDebug("MFT record 0 is invalid."));
}

TEST_F(NTFSParserTest, MapIsThatOfTheBitmap) {
    make({});
    for (const std::uint64_t cluster : {500U, 501U, 9999U}) {
        image->setUsed(cluster);
    }
    EXPECT_EQ(parse(), clusterBits);
    Clusters expected{0, 500, 501, 9999};
    expected.merge(run(4, 17)); // 16 of the MFT, 1 of the bitmap
    EXPECT_EQ(used(10'000), expected);
}

TEST_F(NTFSParserTest, TellsWhatItReads) {
    make({});
    parse();
    EXPECT_EQ(debugLines(), (std::vector<std::string>{"Searching for attribute 128",
                                                      "Reading $MFT for inode 6 at offset 22528",
                                                      "Searching for attribute 128"}));
}

// The bitmap covers whole bytes of clusters, and the backup boot sector is after the last cluster that
// counts.
TEST_F(NTFSParserTest, WhatIsBehindTheLastClusterIsUsed) {
    for (const std::uint64_t clusters : {9'999U, 10'000U, 10'007U, 32'767U, 32'768U}) {
        make({.clusterCount = clusters});
        EXPECT_EQ(parse(), clusterBits);
        EXPECT_EQ(used(clusters).size(), 18U);
        EXPECT_FALSE(used(clusters).contains(clusters - 1));
        EXPECT_EQ(used(clusterBits).size(), 18 + clusterBits - clusters);
    }
    make({});
    EXPECT_EQ(parse(9'984, 64), 512);
    EXPECT_EQ(used(512, 9'984), run(10'000, 496));
}

TEST_F(NTFSParserTest, BitmapInPiecesIsReadAcrossThemInOneCall) {
    make({.clusterCount = 60'000});
    image->setBitmap({{5000, 1}, {300, 1}});
    image->setUsed(32'767);
    image->setUsed(32'768);
    image->setUsed(50'000);
    EXPECT_EQ(parse(), 2 * clusterBits);
    Clusters expected{0, 300, 5000, 32'767, 32'768, 50'000};
    expected.merge(run(4, 16));
    EXPECT_EQ(used(60'000), expected);
}

TEST_F(NTFSParserTest, FortyPiecesInAnyOrder) {
    make({.sectorsPerCluster = 1, .clusterCount = 40UL * 512 * 8});
    std::mt19937 random(7);
    Runs runs;
    for (std::int64_t piece = 0; piece < 40; ++piece) {
        runs.emplace_back(1000 + piece * 4000, 1);
    }
    std::shuffle(runs.begin(), runs.end(), random);
    image->setBitmap(runs);
    Clusters expected{0};
    expected.merge(run(4, 128));
    for (const auto& [first, count] : runs) {
        expected.merge(run(static_cast<std::uint64_t>(first), static_cast<std::uint64_t>(count)));
    }
    for (int i = 0; i < 1000; ++i) {
        const std::uint64_t cluster = random() % image->geometry.clusterCount;
        image->setUsed(cluster);
        expected.insert(cluster);
    }
    EXPECT_EQ(parse(0, 20'480), 163'840);
    EXPECT_EQ(used(163'840), expected);
}

TEST_F(NTFSParserTest, RecordsHaveTheSizeThatTheBootSectorTells) {
    struct Case {
        std::uint32_t sectorsPerCluster;
        std::uint32_t recordSize;
        std::uint8_t told;
    };
    for (const auto& [sectorsPerCluster, recordSize, told] :
         {Case{8, 1024, 0xF6}, Case{8, 4096, 1}, Case{1, 1024, 2}, Case{128, 4096, 0xF4},
          Case{4, 512, 0xF7}}) {
        make({.sectorsPerCluster = sectorsPerCluster, .recordSize = recordSize});
        ASSERT_EQ(image->volume.at(64), told);
        EXPECT_GE(parse(0, 1250), 10'000);
        EXPECT_TRUE(hasDebug("Reading $MFT for inode 6 at offset " +
                             std::to_string(4 * image->clusterBytes + 6 * recordSize)));
    }
}

TEST_F(NTFSParserTest, ClustersWithoutSectors) {
    make({});
    image->volume.at(13) = 0;
    expectFailure(-174, "Invalid parameter. Did you call fs_has_identifier before?");
}

TEST_F(NTFSParserTest, VolumeThatIsNotRecognisedHasNoClusters) {
    make({});
    NTFSParser parser(record.logger, image->volume, 512);
    EXPECT_EQ(parser.getBitmapChunk(0, nullptr, 0), -174);
    EXPECT_EQ(parser.getBlockSize(), 0U);
}

TEST_F(NTFSParserTest, VolumeThatIsNoLongerRecognisedHasNone) {
    make({});
    NTFSParser parser(record.logger, image->volume, 512);
    EXPECT_TRUE(parser.recognize());
    image->volume.failReads(0, 1);
    EXPECT_FALSE(parser.recognize());
    EXPECT_EQ(parser.getBitmapChunk(0, nullptr, 0), -174);
    image->volume.failReads(0, 0);
    EXPECT_TRUE(parser.recognize());
    image->volume.at(3) = 'n';
    EXPECT_FALSE(parser.recognize());
    EXPECT_EQ(parser.getBitmapChunk(0, nullptr, 0), -174);
}

TEST_F(NTFSParserTest, ClustersOfThreeSectorsAreCountedTwice) {
    make({});
    image->volume.at(13) = 3;
    expectFailure(-186, "Sanity check failed. ClusterCount: 80000 Alt ClusterCount: 26666");
}

// For larger clusters the field holds the negated logarithm of the number of sectors.
TEST_F(NTFSParserTest, ClustersOfMoreThan128SectorsAreRefused) {
    for (unsigned sectors = 0xF1; sectors <= 0xFF; ++sectors) {
        make({});
        image->volume.at(13) = static_cast<std::uint8_t>(sectors);
        EXPECT_EQ(parse(), -186) << sectors;
    }
}

TEST_F(NTFSParserTest, EndHasNothing) {
    make({});
    EXPECT_EQ(parse(10'000), 0);
    EXPECT_TRUE(hasDebug("LCN: 10000 Total blocks: 10000. Nothing more to read in bitmap."));
    EXPECT_EQ(parse(10'001), 0);
    EXPECT_EQ(parse(UINT64_MAX), 0);
    EXPECT_TRUE(image->volume.requests.empty());
    image->volume.writeLittle(40, 7, 8);
    EXPECT_EQ(parse(), 0);
}

TEST_F(NTFSParserTest, StartWithinAByteIsRefused) {
    make({});
    EXPECT_EQ(parse(12), -201);
    EXPECT_TRUE(hasDebug("LCN 12 is not a multiple of 8."));
    EXPECT_TRUE(saysFailure(-201));
}

// A stale bitmap, or a disk that has lost its contents: everything would be taken as free.
TEST_F(NTFSParserTest, MapThatCallsItsOwnStructuresFreeIsRefused) {
    for (const std::uint64_t cluster : {0U, 4U, 20U}) {
        make({});
        image->free(cluster);
        expectRefusal("NTFS: The bitmap takes cluster " + std::to_string(cluster) +
                      " as free, which has structures of the file system.");
    }
    make({});
    image->free(5); // not checked
    EXPECT_EQ(parse(), clusterBits);
    image->free(0);
    EXPECT_EQ(parse(16), clusterBits - 16); // cluster 0 isn't covered, cluster 20 is
    image->free(20);
    EXPECT_EQ(parse(16), -1);
    EXPECT_EQ(parse(24), clusterBits - 24);
}

TEST_F(NTFSParserTest, SmallBufferIsFilled) {
    make({});
    image->setUsed(100);
    EXPECT_EQ(parse(0, 16), 128);
    EXPECT_TRUE(used(128).contains(100));
    EXPECT_EQ(parse(96, 1), 8);
    EXPECT_EQ(used(8, 96), Clusters{100});
    EXPECT_EQ(parse(0, 0), 0);
}

TEST_F(NTFSParserTest, ChunksOfOneRunGoOnAnywhere) {
    make({.clusterCount = 60'000});
    std::mt19937 random(3);
    for (int i = 0; i < 5000; ++i) {
        image->setUsed(random() % 60'000);
    }
    EXPECT_EQ(parse(), 2 * clusterBits);
    const Clusters whole = used(60'000);
    for (const std::uint64_t start : {8U, 4096U, 32'760U, 32'768U, 32'776U, 59'992U}) {
        EXPECT_EQ(parse(start), 2 * clusterBits - start);
        EXPECT_EQ(used(60'000 - start, start), Clusters(whole.lower_bound(start), whole.end()));
    }
}

// Everything that was skipped is subtracted from the first run that is read, even if it was in earlier runs.
TEST_F(NTFSParserTest, ChunksOfSeveralRunsGoOnInTheFirstOneAlone) {
    make({.clusterCount = 60'000});
    image->setBitmap({{5000, 1}, {300, 1}});
    image->setUsed(40'000);
    for (const std::uint64_t start : {32'760U, 32'768U}) { // in and after the last byte of the first run
        EXPECT_EQ(parse(start), 2 * clusterBits - start);
        EXPECT_EQ(used(60'000 - start, start), Clusters{40'000});
    }
    EXPECT_EQ(parse(32'776), -1);
    EXPECT_TRUE(record.has(info::level::error, "NTFS: The bitmap is in pieces, and can't be read on from "
                                               "cluster 32776; the rest is copied whole."));
    image->setBitmap({{5000, 1}, {300, 3}}); // the second run is longer than what is skipped
    EXPECT_EQ(parse(32'776), -1);
}

// With the buffer size of a backup, volumes of more than 335,544,320 clusters need a second chunk.
TEST_F(NTFSParserTest, SecondChunkOfALargeVolume) {
    constexpr std::uint64_t bits = 335'544'320;
    constexpr std::size_t bytes = bits / 8;
    make({.clusterCount = bits + 65'536});
    image->setUsed(bits + 13);
    EXPECT_EQ(parse(bits, bytes), 65'536);
    EXPECT_EQ(used(65'536, bits), Clusters{bits + 13});
    image->setBitmap({{5000, 10'000}, {300, 242}});
    image->setUsed(bits - 1);
    EXPECT_EQ(parse(0, bytes), bits);
    EXPECT_EQ(buffer[bytes - 1], 0x80);
    EXPECT_EQ(parse(bits, bytes), -1);
    EXPECT_TRUE(record.has(info::level::error, "NTFS: The bitmap is in pieces, and can't be read on from "
                                               "cluster 335544320; the rest is copied whole."));
}

TEST_F(NTFSParserTest, UnreadableBitmapIsRefused) {
    make({.clusterCount = 60'000});
    image->setBitmap({{300, 1}, {5000, 1}});
    const std::string reason = "NTFS: Can't read the bitmap.";
    image->volume.failReads(5000UL * 4096, 5000UL * 4096 + 1);
    expectRefusal(reason);
    image->volume.failReads(0, 0);
    image->volume.size = 5001UL * 4096 - 512;
    expectRefusal(reason);
    image->volume.size = 5001UL * 4096;
    EXPECT_EQ(parse(), 2 * clusterBits);
}

TEST_F(NTFSParserTest, PlacesGoByTheSectorsOfTheDevice) {
    make({.bytesPerSector = 4096, .sectorsPerCluster = 1, .recordSize = 4096});
    EXPECT_EQ(parseOn(4096), clusterBits);
    for (const auto& request : image->volume.requests) {
        EXPECT_EQ(request.offset % 4096, 0U);
        EXPECT_EQ(request.length % 4096, 0U);
    }
    EXPECT_EQ(parseOn(0), clusterBits);
    EXPECT_EQ(parseOn(512), -1);
    EXPECT_TRUE(
        record.has(info::level::error, "NTFS: The volume has sectors of 4096 bytes and its device of 512."));
    make({});
    EXPECT_EQ(parseOn(4096), -1);
    EXPECT_EQ(parseOn(0), clusterBits);
}

TEST_F(NTFSParserTest, ImpossibleGeometryIsRefused) {
    const auto refuse = [this](std::uint64_t offset, std::uint64_t value, unsigned width,
                               const std::string& reason) {
        make({});
        image->volume.writeLittle(offset, value, width);
        EXPECT_EQ(parseOn(512), -1) << offset << " " << value;
        EXPECT_TRUE(record.has(info::level::error, reason)) << offset << " " << value;
        EXPECT_TRUE(image->volume.requests.empty());
    };
    for (const std::uint64_t sector : {0U, 1U, 128U, 500U, 768U, 8192U, 65'535U}) {
        refuse(11, sector, 2, "NTFS: Impossible cluster size.");
    }
    for (const std::uint64_t records : {0U, 3U, 17U, 32U, 127U, 0x80U, 0xE0U, 0xEFU, 0xF8U, 0xFFU}) {
        refuse(64, records, 1, "NTFS: Impossible size of file records.");
    }
    refuse(40, (std::uint64_t{1} << 51U) + 8, 8, "NTFS: Impossible number of sectors.");
    refuse(40, UINT64_MAX, 8, "NTFS: Impossible number of sectors.");
    for (const std::uint64_t lcn : {std::uint64_t{0}, std::uint64_t{10'000}, UINT64_MAX}) {
        refuse(48, lcn, 8, "NTFS: The master file table is outside of the volume.");
    }
}

TEST_F(NTFSParserTest, BlockIsACluster) {
    const auto blockSize = [this](Geometry geometry, unsigned sectorsPerCluster) {
        make(geometry);
        image->volume.at(13) = static_cast<std::uint8_t>(sectorsPerCluster);
        NTFSParser parser(record.logger, image->volume, 512);
        EXPECT_TRUE(parser.recognize());
        return parser.getBlockSize();
    };
    EXPECT_EQ(blockSize({}, 8), 4096U);
    EXPECT_EQ(blockSize({}, 128), 65'536U);
    EXPECT_EQ(blockSize({.bytesPerSector = 4096, .sectorsPerCluster = 1, .recordSize = 4096}, 128), 524'288U);
    EXPECT_EQ(blockSize({}, 0), 0U);
    EXPECT_EQ(blockSize({}, 3), 0U);
    EXPECT_EQ(blockSize({}, 0xF4), 0U);
}

TEST_F(NTFSParserTest, LargeBitmapIsReadInFewReadsStraightIntoTheBuffer) {
    constexpr std::size_t mebibyte = 1024UL * 1024;
    make({.clusterCount = 64 * mebibyte}); // has a bitmap of 8 MiB
    NTFSParser parser(record.logger, image->volume, 512);
    ASSERT_TRUE(parser.recognize());
    image->volume.requests.clear();
    AlignedBuffer aligned(8 * mebibyte, 512);
    EXPECT_EQ(parser.getBitmapChunk(0, static_cast<std::uint8_t*>(static_cast<void*>(aligned.data())),
                                    aligned.size()),
              64 * mebibyte);
    using Request = test::MemoryVolume::Request;
    const std::uint64_t bitmap = 20UL * 4096;
    EXPECT_EQ(image->volume.requests,
              (std::vector<Request>{
                  {22'528, 1024}, {bitmap, 4 * mebibyte}, {bitmap + 4 * mebibyte, 4 * mebibyte}}));
}

// After a device error the parser may be asked again.
TEST_F(NTFSParserTest, FailureIsNotTheEnd) {
    make({});
    NTFSParser parser(record.logger, image->volume, 512);
    ASSERT_TRUE(parser.recognize());
    buffer.assign(4096, 0);
    image->volume.failReads(0, UINT64_MAX);
    EXPECT_EQ(parser.getBitmapChunk(0, buffer.data(), buffer.size()), -226);
    image->volume.failReads(0, 0);
    EXPECT_EQ(parser.getBitmapChunk(0, buffer.data(), buffer.size()), clusterBits);
}

} // namespace
} // namespace agent::core::fs
