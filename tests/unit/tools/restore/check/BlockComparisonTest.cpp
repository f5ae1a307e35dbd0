#include "tools/restore/check/BlockComparison.h"

#include "tools/restore/check/FailureRecordingImage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <vector>

namespace restore::check {
namespace {

constexpr std::uint64_t page = 4096;
constexpr std::uint64_t mebibyte = 1UL << 20U;
constexpr std::uint64_t volumeBytes = 16 * mebibyte;

class ImageInMemory : public IImage {
public:
    [[nodiscard]] std::uint64_t size() const override { return bytes.size(); }
    void read(std::span<std::byte> into, std::uint64_t offset) override {
        if (badByte && *badByte >= offset && *badByte < offset + into.size()) {
            throw std::runtime_error("reading it at byte " + std::to_string(*badByte) + " failed");
        }
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), into.size(), into.begin());
    }
    [[nodiscard]] std::string name() const override { return "memory"; }

    std::vector<std::byte> bytes = std::vector<std::byte>(volumeBytes);
    std::optional<std::uint64_t> badByte;
};

RestorePlan planOf(const std::vector<ByteRange>& used) {
    RestorePlan plan;
    plan.volumeBytes = volumeBytes;
    plan.used = used;
    for (const ByteRange& range : used) {
        plan.usedBytes += range.length;
    }
    return plan;
}

class BlockComparisonTest : public testing::Test {
protected:
    Comparison compare(const std::vector<ByteRange>& excluded = {}) {
        return compareBlocks(image, snapshot, plan, excluded, [&](std::uint64_t bytes, std::uint64_t all) {
            EXPECT_GT(bytes, told);
            EXPECT_EQ(all, plan.usedBytes);
            told = bytes;
        });
    }

    ImageInMemory image;
    ImageInMemory snapshot;
    RestorePlan plan = planOf({{0, page}, {mebibyte, 9 * mebibyte}});
    std::uint64_t told = 0;
};

TEST_F(BlockComparisonTest, EqualOnesAreComparedToTheEnd) {
    const Comparison found = compare();
    EXPECT_FALSE(found.difference);
    EXPECT_EQ(found.unreadable, "");
    EXPECT_EQ(found.compared, plan.usedBytes);
    EXPECT_EQ(told, plan.usedBytes);
}

TEST_F(BlockComparisonTest, FreeBlocksMayDiffer) {
    image.bytes[page] = std::byte{1};
    image.bytes[10 * mebibyte] = std::byte{1};
    EXPECT_FALSE(compare().difference);
}

TEST_F(BlockComparisonTest, TheFirstByteThatDiffersIsNamed) {
    for (const std::uint64_t place :
         {std::uint64_t{0}, page - 1, mebibyte, 7 * mebibyte + 5, 10 * mebibyte - 1}) {
        image.bytes[place] = std::byte{1};
        told = 0;
        EXPECT_EQ(compare().difference, place);
        image.bytes[place] = std::byte{};
    }
}

TEST_F(BlockComparisonTest, WhatIsLeftOutMayDifferToTheByte) {
    const std::vector<ByteRange> excluded{{100, 50}, {5 * mebibyte - 10, 20}};
    image.bytes[100] = snapshot.bytes[149] = std::byte{1};
    image.bytes[5 * mebibyte - 10] = image.bytes[5 * mebibyte + 9] = std::byte{1};
    EXPECT_FALSE(compare(excluded).difference);
    image.bytes[5 * mebibyte + 10] = std::byte{1};
    told = 0;
    EXPECT_EQ(compare(excluded).difference, 5 * mebibyte + 10);
}

TEST_F(BlockComparisonTest, AnImageThatCannotBeReadIsToldFromASnapshotThatCannot) {
    image.badByte = 2 * mebibyte;
    EXPECT_EQ(compare().unreadable, "reading it at byte 2097152 failed");
    image.badByte.reset();
    snapshot.badByte = 2 * mebibyte;
    told = 0;
    EXPECT_THROW(compare(), std::runtime_error);
}

TEST_F(BlockComparisonTest, AFailureRecordingImageKeepsItsFirstFailure) {
    FailureRecordingImage watched(image);
    std::vector<std::byte> buffer(page);
    watched.read(buffer, 0);
    EXPECT_EQ(watched.failure(), "");
    EXPECT_EQ(watched.size(), volumeBytes);
    image.badByte = 7;
    EXPECT_THROW(watched.read(buffer, 0), std::runtime_error);
    image.badByte = 9;
    EXPECT_THROW(watched.read(buffer, 0), std::runtime_error);
    EXPECT_EQ(watched.failure(), "reading it at byte 7 failed");
}

} // namespace
} // namespace restore::check
