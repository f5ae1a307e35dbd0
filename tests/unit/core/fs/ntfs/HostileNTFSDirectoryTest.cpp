#include "core/fs/ntfs/NTFSFileBlocks.h"
#include "info/log/Logger.h"
#include "support/NtfsDirectoryImage.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <vector>

namespace agent::core::fs {
namespace {

using test::NtfsDirectoryImage;
using Child = NtfsDirectoryImage::Child;

constexpr std::uint64_t file = 30;
constexpr std::uint64_t firstBlock = 3000;
constexpr std::uint64_t blocks = 8;
constexpr std::size_t mostReads = 200;

/// Damaged directories: the search must end soon, with the right clusters, wrong ones, or an error. The
/// sanitizers check memory accesses.
class HostileNTFSDirectory : public testing::Test {
protected:
    HostileNTFSDirectory() {
        image.setRecord(file, {NtfsDirectoryImage::dataOf({{1000, 7}})});
        image.setDirectory(NtfsDirectoryImage::rootDirectory, {{u"g", 20, 0}}, 1, {{firstBlock, blocks}});
        image.setBlock(firstBlock, 0, NtfsDirectoryImage::nodeOf({{u"c", 20}, {u"d", 20}}));
        image.setBlock(firstBlock + 1, 1, NtfsDirectoryImage::nodeOf({{u"m", file, 2}}, 3));
        image.setBlock(firstBlock + 2, 2, NtfsDirectoryImage::nodeOf({{u"k", file}}));
        image.setBlock(firstBlock + 3, 3, NtfsDirectoryImage::nodeOf({{u"x", file}}));
    }

    /// Whether the file was found.
    bool search(const char* name) {
        info::Logger silent({});
        image.volume.requests.clear();
        try {
            return !findNTFSFile(silent, image.volume, 512, name).runs.empty();
        } catch (const std::runtime_error&) {
            return false;
        }
    }

    testing::AssertionResult isBounded() {
        for (const char* name : {"k", "_"}) {
            search(name);
            if (image.volume.requests.size() > mostReads) {
                return testing::AssertionFailure() << "it took " << image.volume.requests.size() << " reads";
            }
        }
        return testing::AssertionSuccess();
    }

    void expectBoundedWithEachBitFlipped(std::uint64_t begin, std::uint64_t length) {
        for (std::uint64_t offset = begin; offset < begin + length; ++offset) {
            for (unsigned bit = 0; bit < 8; ++bit) {
                const auto mask = static_cast<std::uint8_t>(1U << bit);
                image.volume.at(offset) ^= mask;
                ASSERT_TRUE(isBounded()) << "bit " << bit << " of byte " << offset;
                image.volume.at(offset) ^= mask;
            }
        }
    }

    [[nodiscard]] std::uint64_t placeOf(std::uint64_t block) const {
        return (firstBlock + block) * image.clusterBytes;
    }

    NtfsDirectoryImage image{{}};
};

TEST_F(HostileNTFSDirectory, EveryBitMayBeFlipped) {
    ASSERT_TRUE(search("k") && search("x"));
    expectBoundedWithEachBitFlipped(image.placeOf(NtfsDirectoryImage::rootDirectory), 400);
    expectBoundedWithEachBitFlipped(placeOf(1), 256);
    expectBoundedWithEachBitFlipped(placeOf(2), 256);
    expectBoundedWithEachBitFlipped(image.placeOf(file), 160);
}

TEST_F(HostileNTFSDirectory, TreesMayBeTangledInAnyWay) {
    std::mt19937 random(7);
    for (int round = 0; round < 1'000; ++round) {
        for (std::uint64_t block = 0; block < blocks; ++block) {
            NtfsDirectoryImage::Entries entries;
            for (const char16_t letter : u"agmsz") {
                const bool isInner = random() % 2 == 0;
                const Child child = isInner ? Child(random() % (blocks + 1)) : std::nullopt;
                entries.push_back({{letter}, file, child});
            }
            const Child last = random() % 3 == 0 ? Child(random() % blocks) : std::nullopt;
            image.setBlock(firstBlock + block, block, NtfsDirectoryImage::nodeOf(entries, last));
        }
        ASSERT_TRUE(isBounded()) << round;
    }
}

TEST_F(HostileNTFSDirectory, NodesMayBeNonsense) {
    std::mt19937 random(11);
    for (int round = 0; round < 3'000; ++round) {
        auto node = NtfsDirectoryImage::nodeOf({{u"b", 20, 2}, {u"kkk", file}, {u"z", file, 1}}, 3);
        for (int edit = 0; edit < 3; ++edit) {
            node[random() % node.size()] = static_cast<std::uint8_t>(random() % 4 == 0 ? 0xFF : random());
        }
        image.setBlock(firstBlock + 1, 1, node);
        ASSERT_TRUE(isBounded()) << round;
    }
}

// Every block is full of entries with children. The search must not remember more children than there are
// blocks.
TEST_F(HostileNTFSDirectory, BlocksFullOfChildren) {
    NtfsDirectoryImage::Content node = NtfsDirectoryImage::nodeOf({}, 7);
    for (int i = 0; i < 30; ++i) {
        const auto one = NtfsDirectoryImage::nodeOf({{u"b", 20, 1 + i % 7}});
        node.insert(node.begin() + 16, one.begin() + 16, one.end() - 16);
    }
    node[4] = static_cast<std::uint8_t>(node.size());
    node[5] = static_cast<std::uint8_t>(node.size() >> 8U);
    for (std::uint64_t block = 0; block < blocks; ++block) {
        image.setBlock(firstBlock + block, block, node);
    }
    EXPECT_TRUE(isBounded());
    EXPECT_FALSE(search("x"));
}

} // namespace
} // namespace agent::core::fs
