#include "support/NtfsImage.h"
#include "unit/core/backup/phase/CopyVolumeFixture.h"

#include <gmock/gmock.h>

#include <algorithm>

namespace agent::core::backup::phase {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(CopyVolumeTest, TargetThatTakesHolesIsLeftAloneUnlessToldOtherwise) {
    run();
    EXPECT_EQ(phases(), plainPhases);
    EXPECT_THAT(target->holes, IsEmpty());
}

TEST_F(CopyVolumeTest, TargetThatTakesNoHolesHasNone) {
    config.enabled = true;
    target->holePunching = false;
    run();
    EXPECT_EQ(phases(), plainPhases);
    EXPECT_EQ(source.equalBlocks(target->image), source.used);
}

TEST_F(CopyVolumeTest, UnusedBlocksBecomeHolesOfTheTarget) {
    config.enabled = true;
    run();
    EXPECT_THAT(phases(), ElementsAre("Open Volume I/O phase.", "Create Chunk Range Provider phase.",
                                      "Calculate Transfer Size phase.", "Copy Chunk Ranges phase.",
                                      "Punch Holes phase.", "Modify Boot Sector phase."));
    test::FakeTransport::Image expected(source.image);
    for (std::uint32_t block = 0; block < test::ExtVolume::blockCount; ++block) {
        if (!source.used[block]) {
            const auto first = static_cast<std::ptrdiff_t>(block * 4096UL);
            std::fill_n(expected.begin() + first, 4096, std::uint8_t{0});
        }
    }
    EXPECT_EQ(target->image, expected);
}

TEST_F(CopyVolumeTest, HolesOfAnIncrementalBackupAreAllUnusedBlocks) {
    config.enabled = true;
    target->image = source.image;
    recordChanges({12});
    run(INCREMENTAL);
    EXPECT_EQ(source.equalBlocks(target->image), source.used);
}

/// NTFS's bitmap covers whole clusters, so it extends past the volume.
TEST_F(CopyVolumeTest, HolesOfAVolumeLeaveItsNeighbourInTheImageAlone) {
    test::NtfsImage ntfs({.clusterCount = 4000});
    const std::size_t size = ntfs.volume.size;
    source.image.assign(size, 0);
    ntfs.volume.seek(0, SEEK_SET);
    ntfs.volume.read(source.image.data(), size);
    test::writeFile(source.snapshotPath, {reinterpret_cast<const char*>(source.image.data()), size});
    source.description.size = size;
    source.description.blockCount = size / ntfs.clusterBytes;
    target->image.assign(2 * size, poison);
    config.enabled = true;
    run();
    const auto neighbour = target->image.begin() + static_cast<std::ptrdiff_t>(size);
    EXPECT_TRUE(
        std::all_of(neighbour, target->image.end(), [](std::uint8_t byte) { return byte == poison; }));
    EXPECT_TRUE(std::equal(source.image.begin(), source.image.end(), target->image.begin()));
    EXPECT_GT(target->holes.size(), 0U);
}

} // namespace
} // namespace agent::core::backup::phase
