#include "core/backup/phase/CalculateTransferSize.h"

#include "core/backup/BackupStatusHandler.h"
#include "support/FixedRanges.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using info::level::warning;
using testing::ElementsAre;
using Line = test::RecordingLogger::Line;

constexpr int level3 = info::level::info;
const std::string uuid = "the-volume";

/// Ranges whose size can't be determined.
class UncountedRanges : public test::FixedRanges {
public:
    UncountedRanges() : FixedRanges({}) {}
    [[nodiscard]] std::uint64_t size() const override { throw std::runtime_error("statvfs failed"); }
};

class CalculateTransferSizeTest : public testing::Test {
protected:
    void run(std::uint64_t spaceTotal, std::uint32_t blockSize) {
        CalculateTransferSize phase(log.logger, uuid, spaceTotal, blockSize, status, provider);
        EXPECT_EQ(phase.getName(), "Calculate Transfer Size");
        phase.execute();
    }

    std::int64_t total() { return status.getVolumeStatuses().front().totalSize; }

    test::RecordingLogger log;
    BackupStatusHandler status{log.logger, {uuid}};
    std::unique_ptr<block::IBlockRangeProvider> provider =
        std::make_unique<test::FixedRanges>(std::vector<BlockRange>{{1, 2}, {5, 1}});
};

TEST_F(CalculateTransferSizeTest, EstimateIsTheBlocksToCopy) {
    run(40960, 4096);
    EXPECT_EQ(total(), 12288);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{level3, "The total estimated bytes to copy for volume the-volume is 12288 "
                                         "(12 KiB)"}));
}

TEST_F(CalculateTransferSizeTest, TailThatIsLostIsWarnedOf) {
    run(40970, 4096);
    EXPECT_EQ(total(), 12288);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{warning, "The total volume size 40970 is not divisible by the block size "
                                          "4096, you will lose 10 bytes at the end."},
                            Line{level3, "The total estimated bytes to copy for volume the-volume is 12288 "
                                         "(12 KiB)"}));
}

TEST_F(CalculateTransferSizeTest, NoProviderIsNothingToCopy) {
    provider = nullptr;
    run(40960, 4096);
    EXPECT_EQ(total(), 0);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(Line{level3, "The total estimated bytes to copy for volume the-volume is 0 (0 B)"}));
}

TEST_F(CalculateTransferSizeTest, BackupGoesOnWithoutAnEstimate) {
    provider = std::make_unique<UncountedRanges>();
    run(40960, 4096);
    EXPECT_EQ(total(), -1);
    EXPECT_THAT(log.lines(), ElementsAre(Line{warning, "Could not estimate volume the-volume transfer size. "
                                                       "Error: statvfs failed"}));
}

} // namespace
} // namespace agent::core::backup::phase
