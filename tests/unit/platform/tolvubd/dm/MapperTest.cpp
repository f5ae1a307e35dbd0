#include "dm/Mapper.h"

#include "../ExpectedError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/sysmacros.h>

namespace tolvubd::dm {
namespace {

// The tests' namespace has no /dev/mapper/control, like a machine without device-mapper.

TEST(WithoutDeviceMapper, ThereAreNoDevices) {
    EXPECT_FALSE(findByNumber(makedev(253, 0)));
    EXPECT_FALSE(findByUuid("LVM-1"));
    EXPECT_TRUE(findByPrefix("").empty());
}

TEST(WithoutDeviceMapper, NothingIsMade) {
    EXPECT_EQ(test::errorOf([] { create("name", "uuid"); }), ENODEV);
    EXPECT_EQ(test::errorOf([] { remove({"name", "uuid", 0}); }), ENODEV);
}

TEST(Targets, EndWhereTheLastOneDoes) {
    EXPECT_EQ(sizeOf({}), 0);
    EXPECT_EQ(sizeOf({{0, 8, "linear", "7:0 0"}, {8, 16, "error", ""}}), 24);
}

} // namespace
} // namespace tolvubd::dm
