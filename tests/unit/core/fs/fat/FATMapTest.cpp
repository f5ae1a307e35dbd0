#include "unit/core/fs/fat/FATParserFixture.h"

#include <algorithm>
#include <random>

namespace agent::core::fs {
namespace {

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
