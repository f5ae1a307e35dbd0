#include "unit/core/fs/ext/EXTParserFixture.h"

#include <random>

namespace agent::core::fs {
namespace {

/// Whether a block, counted from the start of its group, belongs to the structures of a group without a
/// bitmap.
bool isStructure(ExtImage& image, std::uint64_t group, std::uint64_t bit, std::uint64_t map) {
    const Blocks withBackups{0, 1, 3, 5, 7, 9, 25, 27};
    const std::uint64_t tableBlocks =
        (std::uint64_t{image.stride} * image.groups + image.blockSize - 1) / image.blockSize;
    return (withBackups.contains(group) && bit < 1 + tableBlocks) ||
           image.firstDataBlock + image.geometry.blocksPerGroup * group + bit == map;
}

/// Reference implementation: computes the bitmap one bit at a time, straight from the structures.
std::int64_t referenceMap(ExtImage& image, std::uint64_t startBlock, std::vector<std::uint8_t>& buffer) {
    const std::uint64_t perGroup = image.geometry.blocksPerGroup;
    const std::uint64_t first = image.firstDataBlock;
    std::uint64_t group = startBlock == 0 ? 0 : (startBlock - first) / perGroup;
    std::uint64_t bit = startBlock == 0 ? 0 : (startBlock - first) - group * perGroup;
    std::int64_t result = 0;
    if (startBlock < first) {
        buffer[0] = 1;
    }
    for (; group < image.groups; ++group, bit = 0) {
        const std::uint64_t descriptor = image.descriptor(static_cast<std::uint32_t>(group));
        const bool uninitialized = (image.volume.at(descriptor + 18) & 2) != 0;
        std::uint64_t map = 0;
        for (unsigned i = 0; i < 4; ++i) {
            map |= std::uint64_t{image.volume.at(descriptor + i)} << (8 * i);
        }
        for (; bit < perGroup && first + perGroup * group + bit < image.geometry.blockCount; ++bit) {
            const std::uint64_t index = first + perGroup * group + bit - startBlock;
            if (index >= buffer.size() * 8) {
                return -1;
            }
            const std::uint8_t byte = image.volume.at(map * image.blockSize + bit / 8);
            if (uninitialized ? isStructure(image, group, bit, map) : (byte >> (bit % 8) & 1) != 0) {
                buffer[index / 8] |= static_cast<std::uint8_t>(1U << (index % 8));
            }
            result = static_cast<std::int64_t>(index) + 1;
        }
    }
    return result;
}

// Small images with random geometry. Some bitmaps are moved, and some groups are uninitialized.
std::unique_ptr<ExtImage> randomImage(std::mt19937& random) {
    const auto logBlockSize = static_cast<std::uint32_t>(random() % 3);
    const auto perGroup = 256 + static_cast<std::uint32_t>(random() % 1000);
    auto made = std::make_unique<ExtImage>(
        Geometry{.logBlockSize = logBlockSize,
                 .blocksPerGroup = perGroup,
                 .blockCount = perGroup + static_cast<std::uint32_t>(random() % 6000),
                 .descriptorSize = static_cast<std::uint16_t>(random() % 2 * 64)});
    ExtImage& image = *made;
    for (std::uint32_t group = 0; group < image.groups; ++group) {
        if (random() % 3 == 0) {
            image.placeBitmap(group, 50 + random() % (perGroup - 50));
        }
        if (random() % 4 == 0) {
            image.setUninitialized(group);
        }
    }
    for (auto block = image.firstDataBlock; block < image.geometry.blockCount; ++block) {
        if (random() % 2 == 0) {
            image.setUsed(block);
        }
    }
    return made;
}

TEST_F(EXTParserTest, MapIsThatOfOneBitAtATime) {
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        image = randomImage(random);
        const std::uint64_t start = random() % 3 == 0 ? 0 : random() % image->geometry.blockCount;
        const std::size_t bytes = 100 + random() % 1000;
        std::vector<std::uint8_t> expected(bytes);
        const std::int64_t result = referenceMap(*image, start, expected);
        ASSERT_EQ(parse(start, bytes), result);
        if (result >= 0) {
            ASSERT_EQ(buffer, expected);
        }
    }
}

} // namespace
} // namespace agent::core::fs
