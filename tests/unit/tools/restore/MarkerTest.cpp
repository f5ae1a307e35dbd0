#include "tools/restore/Marker.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace restore {
namespace {

using Area = std::array<std::byte, Marker::areaBytes>;

void put(Area& area, const Marker& marker) {
    std::ranges::copy(marker.bytes(), area.begin() + static_cast<std::ptrdiff_t>(marker.place()));
}

TEST(Marker, IsFoundAsItWasPut) {
    Area area{};
    put(area, {7, 0x123456789ABC, 0x7FFF00001111, 0xDEADBEEF});
    const auto found = Marker::find(area);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->sequence, 7U);
    EXPECT_EQ(found->position, 0x123456789ABCU);
    EXPECT_EQ(found->volumeBytes, 0x7FFF00001111U);
    EXPECT_EQ(found->identity, 0xDEADBEEFU);
}

TEST(Marker, IsTheLaterOfTwo) {
    Area area{};
    put(area, {4, 1000, 9000, 1});
    put(area, {5, 2000, 9000, 1});
    EXPECT_EQ(Marker::find(area)->position, 2000U);
    put(area, {6, 3000, 9000, 1});
    EXPECT_EQ(Marker::find(area)->position, 3000U);
}

TEST(Marker, IsTheEarlierOneIfTheLaterIsHalfWritten) {
    Area area{};
    put(area, {4, 1000, 9000, 1});
    put(area, {5, 2000, 9000, 1});
    for (std::size_t bit = 0; bit < 8 * std::size_t{40}; ++bit) {
        Area broken = area;
        broken.at(Marker::pageBytes + bit / 8) ^= static_cast<std::byte>(1U << bit % 8);
        const auto found = Marker::find(broken);
        ASSERT_TRUE(found);
        EXPECT_EQ(found->position, 1000U) << "bit " << bit;
    }
}

TEST(Marker, IsNowhereElse) {
    Area area{};
    EXPECT_FALSE(Marker::find(area));
    area.fill(std::byte{0xFF});
    EXPECT_FALSE(Marker::find(area));
}

} // namespace
} // namespace restore
