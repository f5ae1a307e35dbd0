#include "tools/bek-audit/KernelSpace.h"

#include "core/block/FileExtents.h"
#include "support/LoopFileSystem.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

namespace audit {
namespace {

constexpr std::uint32_t page = 4096;

class KernelSpaceTest : public testing::TestWithParam<const char*> {
protected:
    agent::test::LoopFileSystem volume{GetParam()};
    agent::test::RecordingLogger log;

    [[nodiscard]] std::vector<agent::BlockRange> blocksOf(const std::string& name) {
        agent::test::outputOf("sync");
        return agent::core::block::getFileExtents(log.logger, page, volume.path(name));
    }
};

TEST_P(KernelSpaceTest, TellsWhatIsInUseAndWhatIsNot) {
    agent::test::outputOf("dd if=/dev/urandom bs=64k count=20 status=none of=" + volume.path("kept"));
    agent::test::outputOf("dd if=/dev/urandom bs=64k count=20 status=none of=" + volume.path("gone"));
    const auto kept = blocksOf("kept");
    const auto gone = blocksOf("gone");
    agent::test::outputOf("rm " + volume.path("gone") + " && fsfreeze -f " + volume.path("") +
                          " && fsfreeze -u " + volume.path(""));
    KernelSpace space(volume.path(""));
    ASSERT_FALSE(kept.empty() || gone.empty());
    for (const auto& range : kept) {
        for (std::uint64_t block = range.start; block < range.end(); ++block) {
            EXPECT_EQ(space.isInUse(block * page), true) << block;
        }
    }
    for (const auto& range : gone) {
        EXPECT_EQ(space.isInUse(range.start * page), false);
        EXPECT_EQ(space.isInUse((range.end() - 1) * page), false);
    }
    EXPECT_EQ(space.isInUse(0), true); // the superblock
}

TEST_P(KernelSpaceTest, TellsNothingOfWhatIsBehindTheVolume) {
    EXPECT_EQ(KernelSpace(volume.path("")).isInUse(std::uint64_t{1} << 40U), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(OnEach, KernelSpaceTest,
                         testing::Values("mkfs.ext4 -q -b 4096", "mkfs.xfs -q -f -m rmapbt=0",
                                         "mkfs.xfs -q -f -m rmapbt=1"));

TEST(KernelSpaceElsewhere, TellsNothing) {
    EXPECT_EQ(KernelSpace("/proc").isInUse(0), std::nullopt);
    EXPECT_EQ(KernelSpace("/nowhere").isInUse(0), std::nullopt);
}

} // namespace
} // namespace audit
