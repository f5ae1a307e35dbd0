#include "mapper/Targets.h"

#include "mapper/Forecast.h"
#include "mapper/LvmLock.h"

#include <gtest/gtest.h>

#include <sys/sysmacros.h>
#include <system_error>

namespace tolvubd {
namespace {

const dm::Device disk{"x", "TOLVU-x", makedev(253, 300)};

TEST(Targets, ArePiecesOfAFileWhereItLies) {
    const dm::Targets targets = piecesOn(disk, {{8192, 8192}, {65536, 4096}, {0, 4096}}, 4096, 12288);
    const dm::Targets expected = {
        {0, 8, "linear", "253:300 24"}, {8, 8, "linear", "253:300 128"}, {16, 8, "linear", "253:300 0"}};
    EXPECT_EQ(targets, expected);
}

TEST(Targets, AreRefusedBehindTheEndOfTheFile) {
    EXPECT_THROW(piecesOn(disk, {{8192, 8192}}, 4096, 8192), std::system_error);
}

TEST(Targets, TellTheEra) {
    EXPECT_EQ(eraIn({{0, 8, "era", "8 52/262144 17 -"}}), 17U);
    EXPECT_THROW(eraIn({{0, 8, "era", "Error"}}), std::system_error);
    EXPECT_THROW(eraIn({{0, 8, "linear", "8 52/262144 17 -"}}), std::system_error);
    EXPECT_THROW(eraIn({}), std::system_error);
}

TEST(Targets, TellTheRoomOfASnapshotThatIsValid) {
    const auto room = roomIn({{0, 8, "snapshot", "160/2048 16"}});
    ASSERT_TRUE(room);
    EXPECT_EQ(room->used, 160U * 512);
    EXPECT_EQ(room->size, 2048U * 512);
    for (const char* word : {"Invalid", "Overflow", "Unknown", "Merge failed", ""}) {
        EXPECT_FALSE(roomIn({{0, 8, "snapshot", word}})) << word;
    }
    EXPECT_FALSE(roomIn({{0, 8, "error", ""}}));
}

TEST(Targets, TellWhetherTheEraIsNearlyFull) {
    EXPECT_FALSE(isEraNearlyFull({{0, 8, "era", "8 950/1000 17 -"}}));
    EXPECT_TRUE(isEraNearlyFull({{0, 8, "era", "8 951/1000 17 -"}}));
    EXPECT_FALSE(isEraNearlyFull({{0, 8, "linear", ""}}));
}

TEST(LvmLock, FindsTheGroupInAName) {
    EXPECT_EQ(groupOf("vg-lv"), "vg");
    EXPECT_EQ(groupOf("my--group-my--volume"), "my-group");
    EXPECT_EQ(groupOf("a----b-c"), "a--b");
    EXPECT_EQ(groupOf("vg"), "vg");
    EXPECT_EQ(groupOf("vg-"), "vg");
}

TEST(Forecast, IsHalfMoreThanTheLargestOfTheLastNeeds) {
    Layers layers;
    EXPECT_EQ(forecastNeed(layers), 0U);
    recordPreserved(layers, 1000);
    for (std::size_t count = 0; count < forecastSnapshots; ++count) {
        recordPreserved(layers, 100 + count);
    }
    EXPECT_EQ(layers.preservedBytes.size(), forecastSnapshots);
    EXPECT_EQ(forecastNeed(layers), 160U); // the 1000 has been dropped
}

} // namespace
} // namespace tolvubd
