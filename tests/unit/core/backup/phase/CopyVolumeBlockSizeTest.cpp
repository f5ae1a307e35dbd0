#include "support/Messages.h"
#include "unit/core/backup/phase/CopyVolumeFixture.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using info::level::error;
using test::messageOf;
using testing::IsEmpty;

/// Sizes of blocks of which the buffer holds none, or any number.
class UselessBlockSizeTest : public CopyVolumeTest, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(UselessBlockSizeTest, IsRefused) {
    source.description.blockSize = GetParam();
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { run(); }), "Invalid max blocks per chunk!");
    expectUntouchedTarget();
}

INSTANTIATE_TEST_SUITE_P(All, UselessBlockSizeTest, testing::Values(0U, 0x400001U));

// Either something else is mounted over the volume and its blocks are taken for the volume's, or the kernel
// reports another block size than the file system has. Blocks would be copied to the wrong places, and the
// last one might be incomplete.
class OtherBlockSizeTest : public CopyVolumeTest, public testing::WithParamInterface<std::uint32_t> {};

INSTANTIATE_TEST_SUITE_P(Sizes, OtherBlockSizeTest, testing::Values(512U, 1024U, 8192U, 131'072U, 0x280000U));

TEST_P(OtherBlockSizeTest, VolumeIsCopiedWhole) {
    source.description.blockSize = GetParam();
    source.description.blockCount = source.description.size / GetParam();
    config.enabled = true;
    run();
    EXPECT_EQ(target->image, source.image);
    EXPECT_THAT(target->holes, IsEmpty());
    EXPECT_TRUE(log.has(
        error, "The file system of volume the-volume (/mnt) has blocks of 4096 bytes, but its "
               "mount point says " +
                   std::to_string(GetParam()) +
                   ". What it says of used blocks doesn't fit the volume, so every block is copied."));
}

TEST_F(CopyVolumeTest, IncrementalOfAVolumeWhoseBlocksAreNotThoseOfItsMapBringsEverything) {
    source.description.blockSize = 8192;
    source.description.blockCount = test::ExtVolume::blockCount / 2;
    recordChanges({50});
    run(INCREMENTAL);
    EXPECT_EQ(source.equalBlocks(target->image), std::vector<bool>(test::ExtVolume::blockCount, true));
}

TEST_F(CopyVolumeTest, DeviceWhoseSectorsCouldNotBeAskedForIsCopied) {
    source.description.sectorSize = 0;
    run();
    EXPECT_EQ(source.equalBlocks(target->image), source.used);
}

TEST_F(CopyVolumeTest, JournalThatNeedsRecoveryIsCopiedWithEveryBlock) {
    source.image[1024 + 96] |= 0x4;
    test::writeFile(source.snapshotPath,
                    {reinterpret_cast<const char*>(source.image.data()), source.image.size()});
    run();
    EXPECT_EQ(target->image, source.image);
    EXPECT_TRUE(log.has(error, "The EXT journal needs recovery, so the bitmaps may be out of date"));
}

} // namespace
} // namespace agent::core::backup::phase
