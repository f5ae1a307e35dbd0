#include "Volume.h"

#include "ExpectedError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <sys/sysmacros.h>
#include <vector>

namespace tolvubd {
namespace {

using Paths = std::vector<std::string>;

TEST(MountPoints, AreThoseOfTheDevice) {
    const std::string mounts = "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
                               "23 22 8:17 / /data rw - xfs /dev/sdb1 rw\n"
                               "24 22 8:1 /sub /bound rw - ext4 /dev/sda1 rw\n"
                               "25 22 18:1 / /other rw - ext4 /dev/x rw\n";
    EXPECT_EQ(mountPointsIn(mounts, makedev(8, 1)), (Paths{"/", "/bound"}));
    EXPECT_EQ(mountPointsIn(mounts, makedev(8, 17)), Paths{"/data"});
    EXPECT_EQ(mountPointsIn(mounts, makedev(8, 2)), Paths{});
}

TEST(MountPoints, MayHaveAnyCharacter) {
    const std::string mounts = "22 1 8:1 / /a\\040b\\011c\\012d\\134e\\303\\244 rw - ext4 /dev/sda1 rw\n";
    EXPECT_EQ(mountPointsIn(mounts, makedev(8, 1)), Paths{"/a b\tc\nd\\e\xc3\xa4"});
}

TEST(MountPoints, StandBrokenLines) {
    EXPECT_EQ(mountPointsIn("", makedev(8, 1)), Paths{});
    EXPECT_EQ(mountPointsIn("22 1 8:1\n\n8:1 8:1 8:1 8:1", makedev(8, 1)), Paths{});
    EXPECT_EQ(mountPointsIn("22 1 8:1 / /a\\04 rw\n22 1 8:1 / /b\\", makedev(8, 1)),
              (Paths{"/a\\04", "/b\\"}));
}

TEST(Mounts, TellWhetherTheFileSystemIsAProcess) {
    const std::string mounts = "22 1 8:1 / /a rw,relatime - fuseblk /dev/sda1 rw\n"
                               "23 1 8:2 / /b rw shared:1 master:2 - fuseblk.kind /dev/sdb1 rw\n"
                               "24 1 8:3 / /c rw shared:1 - ext4 fuseblk rw\n"
                               "25 1 8:4 / /fuseblk rw fuseblk\n"
                               "26 1 8:5 / /e rw - fuseblkx /dev/sde1 rw\n";
    EXPECT_TRUE(isServedIn(mounts, makedev(8, 1)));
    EXPECT_TRUE(isServedIn(mounts, makedev(8, 2)));
    for (const unsigned minor : {3, 4, 5, 6}) {
        EXPECT_FALSE(isServedIn(mounts, makedev(8, minor))) << minor;
    }
}

TEST(Mounts, TellWhetherTheFileSystemTakesWrites) {
    const std::string mounts = "22 1 8:1 / /a ro,relatime - ext4 /dev/sda1 rw,errors=remount-ro\n"
                               "23 1 8:2 / /b rw shared:1 - ext4 /dev/sdb1 ro\n"
                               "24 1 8:2 / /again rw shared:1 - ext4 /dev/sdb1 ro,relatime\n"
                               "25 1 8:3 / /c rw shared:1 - ext4 /dev/sdc1\n";
    EXPECT_TRUE(isWritableIn(mounts, makedev(8, 1)));
    EXPECT_FALSE(isWritableIn(mounts, makedev(8, 2)));
    EXPECT_TRUE(isWritableIn(mounts, makedev(8, 3)));
    EXPECT_FALSE(isWritableIn(mounts, makedev(8, 4)));
}

TEST(Volume, IsABlockDevice) {
    EXPECT_EQ(test::errorOf([] { findVolume("/dev/null"); }), ENOTBLK);
    EXPECT_EQ(test::errorOf([] { findVolume("/etc"); }), ENOTBLK);
    EXPECT_EQ(test::errorOf([] { findVolume("/nothing"); }), ENOENT);
    EXPECT_EQ(test::errorOf([] { findVolume(""); }), EINVAL);
}

TEST(PathOnVolume, JoinsAtTheMountPoint) {
    EXPECT_EQ((PathOnVolume{"/", "/.tolvu"}).path(), "/.tolvu");
    EXPECT_EQ((PathOnVolume{"/data", "/.tolvu"}).path(), "/data/.tolvu");
}

} // namespace
} // namespace tolvubd
