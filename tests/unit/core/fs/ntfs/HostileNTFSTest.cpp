#include "support/NtfsImage.h"
#include "unit/core/fs/HostileVolume.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace agent::core::fs {
namespace {

using test::NtfsImage;

class HostileNTFS : public testing::Test {
protected:
    HostileNTFS() {
        image.setTable({{4, 30}, {900, 30}});
        image.setBitmap({{400, 1}, {500, 1}, {600, 1}, {700, 1}});
    }

    /// Moves the bitmap's data attribute to record 20, which is in the second run of the MFT.
    void list() {
        image.setRecord(
            6, {NtfsImage::resident(0x10, NtfsImage::Content(48)),
                NtfsImage::attributeListOf({{0x10, 6}, {NtfsImage::data, 21}, {NtfsImage::data, 20}})});
        image.setRecord(20, {NtfsImage::dataOf(image.bitmap)}, 6);
    }

    void flip(std::uint64_t record) {
        hostile::expectBoundedWithEachBitFlipped(image.volume, image.placeOf(record),
                                                 image.placeOf(record) + 256);
    }

    static constexpr NtfsImage::Geometry geometry{.sectorsPerCluster = 1, .clusterCount = 10'000};
    NtfsImage image{geometry};
};

TEST_F(HostileNTFS, EveryBitMayBeFlipped) {
    ASSERT_EQ(hostile::parse(image.volume), 8192);
    hostile::expectBoundedWithEachBitFlipped(image.volume, 0, 80);
    flip(0);
    flip(6);
}

TEST_F(HostileNTFS, EveryBitOfAnAttributeListMayBeFlipped) {
    list();
    ASSERT_EQ(hostile::parse(image.volume), 8192);
    flip(6);
    flip(20);
}

TEST_F(HostileNTFS, AllFieldsMayBeNonsense) {
    std::mt19937_64 random(3);
    for (int round = 0; round < 5'000; ++round) {
        NtfsImage damaged(geometry);
        damaged.setBitmap({{400, 1}, {500, 1}, {600, 1}});
        const std::vector<std::uint64_t> places{0, damaged.placeOf(0), damaged.placeOf(6)};
        for (int edit = 0; edit < 3; ++edit) {
            const std::uint64_t offset = 12 + 2 * (random() % 80);
            const unsigned width = 1U << random() % 4;
            const std::uint64_t value = random() % 3 == 0 ? UINT64_MAX >> random() % 64 : random();
            damaged.volume.writeLittle(places[random() % places.size()] + offset, value, width);
        }
        ASSERT_TRUE(hostile::isBounded(damaged.volume)) << round;
    }
}

// A run list or attribute list may consist of arbitrary bytes.
TEST_F(HostileNTFS, ListsMayBeRandomBytes) {
    std::mt19937 random(4);
    for (int round = 0; round < 5'000; ++round) {
        NtfsImage::Content bytes(1 + random() % 200);
        for (std::uint8_t& byte : bytes) {
            byte = static_cast<std::uint8_t>(random() % (random() % 2 == 0 ? 256 : 4));
        }
        image.setRecord(6, {round % 2 == 0 ? NtfsImage::withRunList(bytes)
                                           : NtfsImage::resident(NtfsImage::attributeList, bytes)});
        ASSERT_TRUE(hostile::isBounded(image.volume)) << round;
    }
}

// Each entry of the list may name another record, and each of those is read.
TEST_F(HostileNTFS, ManyEntriesAreBoundedByTheRecord) {
    NtfsImage large({.clusterCount = 10'000, .recordSize = 65'536});
    large.setTable({{4, 500}});
    std::vector<NtfsImage::ListEntry> entries(1000, {NtfsImage::data, 7});
    large.setRecord(6, {NtfsImage::attributeListOf(entries)});
    ASSERT_TRUE(hostile::isBounded(large.volume));
    EXPECT_GT(large.volume.requests.size(), 1000U);
}

} // namespace
} // namespace agent::core::fs
