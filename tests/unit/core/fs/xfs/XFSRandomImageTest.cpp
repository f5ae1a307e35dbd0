#include "unit/core/fs/xfs/XFSParserFixture.h"

#include <algorithm>
#include <deque>
#include <random>

namespace agent::core::fs {
namespace {

/// Reference implementation: computes the bitmap one block at a time, straight from the structures, level by
/// level.
class ReferenceMap {
public:
    ReferenceMap(XfsImage& image, std::uint64_t startBlock, std::size_t bytes)
        : image(image), startBlock(startBlock), buffer(bytes) {}

    std::vector<std::uint8_t> make() {
        for (std::uint32_t group = 0; group < image.geometry.agCount; ++group) {
            const std::uint64_t info = image.freeSpaceInfo(group);
            for (auto i = big(info + 40, 4); i <= big(info + 44, 4); ++i) {
                mark(group, big(image.freeListEntry(group, static_cast<std::uint32_t>(i)), 4));
            }
            markTree(group, static_cast<std::uint32_t>(big(info + 16, 4)));
        }
        for (std::size_t byte = 0; byte * 8 < image.geometry.totalBlocks && byte < buffer.size(); ++byte) {
            buffer[byte] = static_cast<std::uint8_t>(~buffer[byte]);
        }
        return buffer;
    }

private:
    std::uint64_t big(std::uint64_t offset, unsigned width) {
        std::uint64_t value = 0;
        for (unsigned i = 0; i < width; ++i) {
            value = value << 8 | image.volume.at(offset + i);
        }
        return value;
    }

    void mark(std::uint32_t group, std::uint64_t block) {
        const std::uint64_t absolute = std::uint64_t{group} * image.geometry.agBlocks + block;
        if (absolute >= startBlock && absolute < startBlock + buffer.size() * 8) {
            buffer[(absolute - startBlock) / 8] |=
                static_cast<std::uint8_t>(1U << (absolute - startBlock) % 8);
        }
    }

    void markTree(std::uint32_t group, std::uint32_t root) {
        std::deque<std::uint32_t> queue{root};
        while (!queue.empty()) {
            const std::uint64_t node = image.address(group, queue.back());
            queue.pop_back();
            if (big(node + 4, 2) == 0) {
                markLeaf(group, node);
                continue;
            }
            const std::uint64_t children =
                node + image.headerSize() + (image.geometry.blockSize - image.headerSize()) / 12 * 8UL;
            for (auto child = static_cast<std::uint32_t>(big(children, 4)); child != XfsImage::none;
                 child = static_cast<std::uint32_t>(big(image.address(group, child) + 12, 4))) {
                queue.push_back(child);
            }
        }
    }

    void markLeaf(std::uint32_t group, std::uint64_t node) {
        for (std::uint64_t i = 0; i < big(node + 6, 2); ++i) {
            const std::uint64_t record = node + image.headerSize() + 8 * i;
            for (std::uint64_t block = 0; block < big(record + 4, 4); ++block) {
                mark(group, big(record, 4) + block);
            }
        }
    }

    XfsImage& image;
    std::uint64_t startBlock;
    std::vector<std::uint8_t> buffer;
};

/// Writes a tree of one to three levels with random free extents.
void growTree(XfsImage& image, std::uint32_t group, std::mt19937& random) {
    std::uint32_t next = 4; // block for the next node
    std::vector<std::uint32_t> level;
    const std::uint32_t leaves = 1 + static_cast<std::uint32_t>(random() % 12);
    for (std::uint32_t i = 0; i < leaves; ++i) {
        XfsImage::Records records(random() % 20);
        for (auto& record : records) {
            record = {100 + static_cast<std::uint32_t>(random() % 780),
                      static_cast<std::uint32_t>(random() % 101)};
        }
        image.setLeaf(group, next, records, i + 1 < leaves ? next + 1 : XfsImage::none);
        level.push_back(next++);
    }
    for (std::uint16_t number = 1; level.size() > 1; ++number) {
        std::vector<std::uint32_t> above;
        for (std::size_t i = 0; i < level.size(); i += 4) {
            const auto end = level.begin() + static_cast<std::ptrdiff_t>(std::min(i + 4, level.size()));
            image.setInternal(group, next, number, {level.begin() + static_cast<std::ptrdiff_t>(i), end},
                              i + 4 < level.size() ? next + 1 : XfsImage::none);
            above.push_back(next++);
        }
        level = above;
    }
    image.setRoot(group, level.front());
}

// Random trees and free lists, checked against the reference implementation.
TEST_F(XFSParserTest, MapIsThatOfOneBlockAtATime) {
    std::mt19937 random(11);
    for (int round = 0; round < 300; ++round) {
        make({.blockSize = 512U << random() % 4,
              .agCount = 3,
              .totalBlocks = 2980 + random() % 20,
              .crc = random() % 2 == 0});
        for (std::uint32_t group = 0; group < 3; ++group) {
            growTree(*image, group, random);
            const auto first = static_cast<std::uint32_t>(random() % 119);
            const std::uint32_t last = std::min(118U, first + 5);
            image->setFreeList(group, first, last, last - first + 1);
            for (std::uint32_t index = 0; index < 119; ++index) {
                image->setFreeListEntry(group, index, static_cast<std::uint32_t>(random() % 980));
            }
        }
        image->volume.size = std::uint64_t{3000} * image->geometry.blockSize;
        const std::uint64_t start = random() % 250 * 8;
        const std::size_t bytes = 1 + random() % 400;
        const std::uint64_t left = image->geometry.totalBlocks - start;
        ASSERT_EQ(parse(start, bytes), static_cast<std::int64_t>(std::min<std::uint64_t>(left, bytes * 8)));
        ASSERT_EQ(buffer, ReferenceMap(*image, start, bytes).make());
    }
}

} // namespace
} // namespace agent::core::fs
