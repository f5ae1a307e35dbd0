#include "mapper/FreshGroups.h"

#include "FileAccess.h"
#include "capture/SpaceMap.h"
#include "support/LoopFileSystem.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <vector>

namespace tolvubd {
namespace {

using agent::test::outputOf;

/// An ext4 image whose groups each contain their own structures, so that the structures of a group that was
/// never used count as free.
class FreshGroups : public ::testing::Test {
protected:
    FreshGroups() {
        outputOf("truncate -s 64M " + image);
        outputOf("mke2fs -q -t ext4 -O ^flex_bg,^has_journal,^resize_inode,uninit_bg -b 1024 " + image);
    }

    void addFile(int mebibytes) const {
        outputOf("head -c " + std::to_string(mebibytes) + "M /dev/urandom > " + image + ".file");
        outputOf("debugfs -w -R 'write " + image + ".file f" + std::to_string(mebibytes) + "' " + image);
    }
    [[nodiscard]] os::FileDescriptor open() const { return openFile(image, O_RDONLY); }

    static constexpr std::uint64_t size = std::uint64_t{64} << 20;

private:
    agent::test::TestDirectory directory;
    std::string image = directory / "image";
};

TEST_F(FreshGroups, AreNoneWhileNoFurtherGroupIsUsed) {
    const std::string then = groupsInUse(open(), size);
    EXPECT_NE(then, "");
    EXPECT_NE(then, "ff");
    addFile(1);
    EXPECT_EQ(freshGroups(open(), size, then), std::vector<Extent>{});
}

/// The reported extents are exactly the blocks that the space map shows as used in these groups, structures
/// included.
TEST_F(FreshGroups, AreAllThatIsInUseInThem) {
    const std::string then = groupsInUse(open(), size);
    const auto before = readExtSpace(open(), size);
    addFile(40);
    const auto after = readExtSpace(open(), size);
    ASSERT_TRUE(before && after);

    const std::vector<Extent> fresh = freshGroups(open(), size, then);

    std::vector<bool> told(after->used.size());
    for (const Extent& extent : fresh) {
        for (std::uint64_t block = extent.offset / 1024; block < extent.end() / 1024; ++block) {
            told[block] = true;
        }
    }
    constexpr std::uint64_t blocksInGroup = 8192;
    std::uint64_t groups = 0;
    for (std::uint64_t first = 1; first < told.size(); first += blocksInGroup) {
        const bool wasUsed = before->used[first];
        groups += !wasUsed && after->used[first] ? 1 : 0;
        for (std::uint64_t block = first; block < std::min(first + blocksInGroup, told.size()); ++block) {
            ASSERT_EQ(told[block], !wasUsed && after->used[block]) << block;
        }
    }
    EXPECT_GE(groups, 2U);
    EXPECT_EQ(freshGroups(open(), size, groupsInUse(open(), size)), std::vector<Extent>{});
}

TEST_F(FreshGroups, AreTheWholeVolumeWhereNothingCanBeTold) {
    EXPECT_EQ(freshGroups(openFile("/dev/zero", O_RDONLY), size, "f"), (std::vector<Extent>{{0, size}}));
}

TEST_F(FreshGroups, AreNoneOfAnotherFileSystem) {
    const os::FileDescriptor zeros = openFile("/dev/zero", O_RDONLY);
    EXPECT_EQ(groupsInUse(zeros, size), "");
    EXPECT_EQ(freshGroups(zeros, size, ""), std::vector<Extent>{});
}

} // namespace
} // namespace tolvubd
