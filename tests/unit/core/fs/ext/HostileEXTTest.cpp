#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"
#include "info/log/Logger.h"
#include "support/ExtImage.h"
#include "support/MemoryVolume.h"
#include "support/XfsImage.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

/// Damaged volumes: a parser may fail, but it neither reads nor writes where it must not (the sanitizers
/// watch), nor takes longer than the volume warrants, nor tells of more than its buffer holds.
namespace agent::core::fs {
namespace {

constexpr std::size_t bufferBytes = 1024;
constexpr std::size_t mostReads = 10'000;

/// What comes of a volume, whatever is on it; -2 if no parser knows it.
std::int64_t parse(test::MemoryVolume& volume, std::uint64_t startBlock = 0) {
    info::Logger silent({});
    volume.requests.clear();
    const auto provider = UsedBlockBitmapChunkProviderFactory(silent, 512, &volume).create();
    if (!provider) {
        return -2;
    }
    const auto buffer = std::make_unique<std::vector<std::uint8_t>>(bufferBytes);
    return provider->getBitmapChunk(startBlock, buffer->data(), buffer->size());
}

testing::AssertionResult isBounded(test::MemoryVolume& volume) {
    const std::int64_t blocks = parse(volume);
    if (blocks < -2 || blocks > static_cast<std::int64_t>(bufferBytes * 8)) {
        return testing::AssertionFailure() << "it tells of " << blocks << " blocks";
    }
    if (volume.requests.size() > mostReads) {
        return testing::AssertionFailure() << "it took " << volume.requests.size() << " reads";
    }
    return testing::AssertionSuccess();
}

/// Turns each bit of [begin, end) around, one at a time.
void expectBoundedWithEachBitFlipped(test::MemoryVolume& volume, std::uint64_t begin, std::uint64_t end) {
    for (std::uint64_t offset = begin; offset < end; ++offset) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            const auto mask = static_cast<std::uint8_t>(1U << bit);
            volume.at(offset) ^= mask;
            ASSERT_TRUE(isBounded(volume)) << "bit " << bit << " of byte " << offset;
            volume.at(offset) ^= mask;
        }
    }
}

/// Ends the device every 512 bytes, and beside it.
void expectFailureAtEachEnd(test::MemoryVolume& volume, std::uint64_t needed) {
    const std::uint64_t whole = volume.size;
    for (std::uint64_t size = 0; size <= needed + 512; size += 512) {
        for (const std::uint64_t end : {size, size + 1, size + 511}) {
            volume.size = end;
            ASSERT_EQ(parse(volume) >= 0, end >= needed) << end;
        }
    }
    volume.size = whole;
}

class HostileExt : public testing::Test {
protected:
    HostileExt() {
        for (std::uint32_t block = 1; block < 2000; block += 3) {
            image.use(block);
        }
        image.setUninitialized(2);
    }

    test::ExtImage image{
        {.logBlockSize = 0, .blocksPerGroup = 512, .blockCount = 2000, .descriptorSize = 64}};
};

TEST_F(HostileExt, EveryBitMayBeFlipped) {
    ASSERT_EQ(parse(image.volume), 2000);
    expectBoundedWithEachBitFlipped(image.volume, 1024, 1024 + 400);
    expectBoundedWithEachBitFlipped(image.volume, image.descriptor(0), image.descriptor(4));
}

TEST_F(HostileExt, TheDeviceMayEndAnywhere) {
    const std::uint64_t lastBitmap = 6; // behind boot block, super block and descriptors
    expectFailureAtEachEnd(image.volume, lastBitmap * 1024 + 64);
}

TEST_F(HostileExt, AllFieldsMayBeNonsense) {
    std::mt19937 random(3);
    for (int round = 0; round < 5'000; ++round) {
        test::ExtImage damaged(
            {.logBlockSize = 0, .blocksPerGroup = 512, .blockCount = 2000, .descriptorSize = 64});
        for (int edit = 0; edit < 3; ++edit) {
            const std::uint64_t offset = 1024 + 4 * (random() % 90);
            const std::uint64_t value = random() % 3 == 0 ? 0xFFFFFFFFU >> random() % 32 : random();
            if (offset != 1024 + 56) {
                damaged.volume.writeLittle(offset, value, 4);
            }
        }
        ASSERT_TRUE(isBounded(damaged.volume)) << round;
    }
}

class HostileXfs : public testing::Test {
protected:
    HostileXfs() {
        image.setRoot(0, 10);
        image.setInternal(0, 10, 2, {11, 12});
        image.setInternal(0, 11, 1, {21, 22}, 12);
        image.setInternal(0, 12, 1, {23});
        for (std::uint32_t leaf = 21; leaf <= 23; ++leaf) {
            image.setLeaf(0, leaf, {{leaf * 10, 3}}, leaf == 23 ? test::XfsImage::none : leaf + 1);
        }
        image.setFreeList(0, 1, 3, 3);
        for (std::uint32_t index = 1; index <= 3; ++index) {
            image.setFreeListEntry(0, index, 300 + index);
        }
    }

    [[nodiscard]] std::uint64_t node(std::uint32_t block) const { return image.address(0, block); }

    test::XfsImage image{{.blockSize = 512, .agBlocks = 1000, .agCount = 2, .totalBlocks = 2000}};
};

TEST_F(HostileXfs, EveryBitMayBeFlipped) {
    ASSERT_EQ(parse(image.volume), 2000);
    expectBoundedWithEachBitFlipped(image.volume, 0, 104);
    expectBoundedWithEachBitFlipped(image.volume, 512, 512 + 64);
    expectBoundedWithEachBitFlipped(image.volume, image.freeListEntry(0, 0), image.freeListEntry(0, 5));
    for (const std::uint32_t block : {10U, 11U, 12U}) {
        expectBoundedWithEachBitFlipped(image.volume, node(block), node(block) + 512);
    }
    expectBoundedWithEachBitFlipped(image.volume, node(21), node(21) + 72);
    expectBoundedWithEachBitFlipped(image.volume, node(23), node(23) + 72);
}

TEST_F(HostileXfs, TheDeviceMayEndAnywhere) {
    constexpr std::uint64_t headerAndNoRecords = 56;
    expectFailureAtEachEnd(image.volume, image.address(1, test::XfsImage::emptyLeaf) + headerAndNoRecords);
}

// Every node may follow every other one, at any level.
TEST_F(HostileXfs, TreesMayBeTangledInAnyWay) {
    std::mt19937 random(5);
    for (int round = 0; round < 5'000; ++round) {
        for (std::uint32_t block = 10; block < 18; ++block) {
            const std::uint32_t sibling =
                random() % 3 == 0 ? test::XfsImage::none : 10 + static_cast<std::uint32_t>(random() % 8);
            const auto level = static_cast<std::uint16_t>(random() % 3);
            if (level == 0) {
                image.setLeaf(0, block, {{500, 10}}, sibling);
            } else {
                image.setInternal(0, block, level, {10 + static_cast<std::uint32_t>(random() % 8)}, sibling);
            }
        }
        ASSERT_TRUE(isBounded(image.volume)) << round;
        ASSERT_LT(image.volume.requests.size(), 100U) << "nodes were read again and again";
    }
}

TEST(HostileVolume, RandomBytesAreBounded) {
    std::mt19937 random(9);
    test::MemoryVolume volume(64UL * 1024);
    for (int round = 0; round < 300; ++round) {
        for (std::uint64_t offset = 0; offset < volume.size; ++offset) {
            volume.at(offset) = static_cast<std::uint8_t>(random());
        }
        volume.writeLittle(1024 + 56, round % 2 == 0 ? 0xEF53 : 0, 2);
        volume.writeBig(0, 0x58465342, 4);
        ASSERT_TRUE(isBounded(volume));
    }
}

} // namespace
} // namespace agent::core::fs
