#include "lvm/LogicalVolume.h"

#include "ExpectedError.h"
#include "LvmGroup.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <sys/sysmacros.h>
#include <vector>

namespace tolvubd {
namespace {

using LogicalVolume = test::LvmGroup;

TEST_F(LogicalVolume, LiesInOnePiece) {
    makeGroup();
    makeVolume("first", 3);
    makeVolume("second", 5);
    expectAsReported("first");
    expectAsReported("second");
    const auto pieces = readLogicalVolume(uuidOf("second"), numbers());
    ASSERT_TRUE(pieces);
    EXPECT_EQ(pieces->size(), 1U);
}

TEST_F(LogicalVolume, LiesInPiecesOnAllDevices) {
    makeGroup();
    makeVolume("small", 7);
    makeVolume("large", 100);
    tool("lvremove", "-f vg/small");
    tool("lvextend", "-l +14 vg/large");
    expectAsReported("large");
    const auto pieces = readLogicalVolume(uuidOf("large"), numbers());
    ASSERT_TRUE(pieces);
    EXPECT_GE(pieces->size(), 4U);
}

TEST_F(LogicalVolume, MayHaveSmallExtentsAnywhere) {
    tool("pvcreate", "--dataalignment 12k" + allDisks());
    tool("vgcreate", "-s 4k vg" + allDisks());
    makeVolume("volume", 20000);
    expectAsReported("volume", 8);
}

TEST_F(LogicalVolume, IsFollowedThroughItsChanges) {
    makeGroup();
    makeVolume("volume", 10);
    makeVolume("other", 10);
    const std::string uuid = uuidOf("volume");
    for (const int size : {45, 12, 60, 11}) {
        tool("lvresize", "-f -l " + std::to_string(size) + " vg/volume");
        expectAsReported("volume");
    }
    tool("lvrename", "vg/volume vg/renamed");
    tool("vgchange", "--addtag tag vg");
    EXPECT_EQ(uuidOf("renamed"), uuid);
    expectAsReported("renamed");
}

TEST_F(LogicalVolume, IsNotReadWhileItMoves) {
    makeGroup();
    makeVolume("volume", 10);
    makeVolume("other", 10);
    tool("pvmove", "-b -n volume " + disks[0].path() + " " + disks[1].path());
    EXPECT_EQ(readLogicalVolume(uuidOf("volume"), numbers()), std::nullopt);
    expectAsReported("other");
}

TEST_F(LogicalVolume, IsNotReadWhereItIsStriped) {
    makeGroup();
    tool("lvcreate", "-an -Zn -Wn --type striped -i 2 -n volume -l 6 vg");
    EXPECT_EQ(readLogicalVolume(uuidOf("volume"), numbers()), std::nullopt);
}

TEST_F(LogicalVolume, LiesOnKnownDevicesOnly) {
    makeGroup();
    makeVolume("spread", 60); // one disk has only 39
    makeVolume("last", 30);
    const std::string spread = uuidOf("spread");
    const auto pieces = readLogicalVolume(spread, numbers());
    ASSERT_TRUE(pieces);
    for (const dev_t known : numbers()) {
        EXPECT_EQ(readLogicalVolume(spread, {known}), std::nullopt);
    }
    EXPECT_EQ(readLogicalVolume(spread, {pieces->front().device, pieces->back().device}), pieces);
}

TEST_F(LogicalVolume, IsKnownToItsGroupOnly) {
    makeGroup();
    makeVolume("volume", 3);
    const std::string uuid = uuidOf("volume");
    for (const std::string& other : {std::string(), std::string("LVM-"), uuid.substr(1), uuid + "-real",
                                     "LVM-" + uuid.substr(36) + uuid.substr(4, 32),
                                     uuid.substr(0, 67) + (uuid.back() == 'a' ? "b" : "a")}) {
        EXPECT_EQ(readLogicalVolume(other, numbers()), std::nullopt) << other;
    }
    tool("lvremove", "-f vg/volume");
    EXPECT_EQ(readLogicalVolume(uuid, numbers()), std::nullopt);
    tool("vgremove", "vg");
    EXPECT_EQ(readLogicalVolume(uuid, numbers()), std::nullopt);
    tool("pvremove", allDisks());
    EXPECT_EQ(test::errorOf([&] { readLogicalVolume(uuid, numbers()); }), EBADMSG);
}

TEST_F(LogicalVolume, NeedsALabelOnEachDevice) {
    tool("pvcreate", disks[0].path());
    tool("vgcreate", "vg " + disks[0].path());
    makeVolume("volume", 2);
    const std::string uuid = uuidOf("volume");
    EXPECT_TRUE(readLogicalVolume(uuid, {disks[0].number()}));
    EXPECT_EQ(test::errorOf([&] { readLogicalVolume(uuid, {disks[0].number(), disks[1].number()}); }),
              EBADMSG);
    EXPECT_EQ(test::errorOf([&] { readLogicalVolume(uuid, {}); }), EBADMSG);
    EXPECT_EQ(test::errorOf([&] { readLogicalVolume(uuid, {makedev(4095, 1)}); }), ENOENT);
}

TEST_F(LogicalVolume, NeedsDevicesThatAreNotTheSame) {
    makeGroup();
    makeVolume("volume", 2);
    const std::string uuid = uuidOf("volume");
    disks[1].write(0, disks[0].read(0, 4096));
    EXPECT_EQ(test::errorOf([&] { readLogicalVolume(uuid, numbers()); }), EBADMSG);
}

} // namespace
} // namespace tolvubd
