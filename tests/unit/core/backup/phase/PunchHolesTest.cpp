#include "core/backup/phase/PunchHoles.h"

#include "support/CountedCancel.h"
#include "support/FakeTransport.h"
#include "support/FaultyTransport.h"
#include "support/FixedRanges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace agent::core::backup::phase {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Extent = test::FakeTransport::Extent;

constexpr std::uint32_t blockSize = 512;
constexpr std::uint8_t data = 0xDA;

class PunchHolesTest : public testing::Test {
protected:
    PunchHolesTest() {
        target->holePunching = true;
        target->connect(false);
    }

    PunchHoles phase(std::vector<BlockRange> unused) { return phase(std::move(unused), target); }

    PunchHoles phase(std::vector<BlockRange> unused, std::shared_ptr<ITransport> transport) {
        return {std::move(transport), std::make_unique<test::FixedRanges>(std::move(unused)), blockSize,
                cancel, volumeBlocks};
    }

    std::uint64_t volumeBlocks = 10;
    test::CountedCancel cancel;
    std::shared_ptr<test::FakeTransport> target =
        std::make_shared<test::FakeTransport>(test::FakeTransport::Image(10UL * blockSize, data));
};

TEST_F(PunchHolesTest, EachUnusedRangeBecomesAHole) {
    PunchHoles holes = phase({{1, 2}, {5, 1}});
    EXPECT_EQ(holes.getName(), "Punch Holes");
    holes.execute();
    EXPECT_THAT(target->holes,
                ElementsAre(Extent(blockSize, 2 * blockSize), Extent(5 * blockSize, blockSize)));
    EXPECT_EQ(cancel.checks, 2);
}

TEST_F(PunchHolesTest, VolumeThatIsFullHasNoHoles) {
    phase({}).execute();
    EXPECT_THAT(target->holes, IsEmpty());
}

TEST_F(PunchHolesTest, CancelIsSeenBeforeEachHole) {
    cancel = test::CountedCancel(1);
    PunchHoles holes = phase({{1, 1}, {5, 1}});
    EXPECT_THROW(holes.execute(), CancelableOperation::cancel_op);
    EXPECT_THAT(target->holes, ElementsAre(Extent(blockSize, blockSize)));
}

TEST_F(PunchHolesTest, HoleThatCannotBePunchedKeepsNoneOfTheOthers) {
    auto faulty = std::make_shared<test::FaultyTransport>(target, 2); // the punch of the first hole
    phase({{1, 1}, {5, 1}}, faulty).execute();
    EXPECT_THAT(target->holes, ElementsAre(Extent(5 * blockSize, blockSize)));
}

TEST_F(PunchHolesTest, NothingIsPunchedWhereTheTransportHappensToStand) {
    auto faulty = std::make_shared<test::FaultyTransport>(target, 3); // the seek of the second hole
    phase({{1, 1}, {5, 1}, {8, 1}}, faulty).execute();
    EXPECT_THAT(target->holes, ElementsAre(Extent(blockSize, blockSize), Extent(8 * blockSize, blockSize)));
    EXPECT_EQ(target->image[2UL * blockSize], data);
}

TEST_F(PunchHolesTest, RangeBehindTheTargetTakesNothingFromIt) {
    volumeBlocks = 20;
    phase({{1, 1}, {11, 2}}).execute();
    EXPECT_THAT(target->holes, ElementsAre(Extent(blockSize, blockSize)));
}

/// If one image holds several volumes, the next one begins after this volume.
TEST_F(PunchHolesTest, HolesEndWithTheVolume) {
    volumeBlocks = 6;
    phase({{1, 1}, {5, 4}, {6, 1}, {8, ~0UL}}).execute();
    EXPECT_THAT(target->holes, ElementsAre(Extent(blockSize, blockSize), Extent(5 * blockSize, blockSize)));
}

TEST_F(PunchHolesTest, RangeWhoseEndHasWrappedEndsWithTheVolume) {
    phase({{3, ~0UL}}).execute();
    EXPECT_THAT(target->holes, ElementsAre(Extent(3 * blockSize, 7 * blockSize)));
}

} // namespace
} // namespace agent::core::backup::phase
