#include "info/HumanSize.h"

#include <gtest/gtest.h>

#include <limits>

namespace agent::info {
namespace {

TEST(HumanSize, StaysInBytesBelow1024) {
    EXPECT_EQ(formatHumanSize(0), "0 B");
    EXPECT_EQ(formatHumanSize(1), "1 B");
    EXPECT_EQ(formatHumanSize(1023), "1023 B");
}

TEST(HumanSize, MovesOnAtEachPowerOf1024) {
    EXPECT_EQ(formatHumanSize(1024), "1 KiB");
    EXPECT_EQ(formatHumanSize(1536), "1.5 KiB");
    EXPECT_EQ(formatHumanSize((1U << 20U) - 1), "1024 KiB"); // 1023.999 rounded to six digits
    EXPECT_EQ(formatHumanSize(1U << 20U), "1 MiB");
    EXPECT_EQ(formatHumanSize(1U << 30U), "1 GiB");
    EXPECT_EQ(formatHumanSize(std::uint64_t{1} << 40U), "1 TiB");
    EXPECT_EQ(formatHumanSize(std::uint64_t{1} << 50U), "1 PiB");
    EXPECT_EQ(formatHumanSize(std::uint64_t{1} << 60U), "1 EiB");
}

TEST(HumanSize, CutsOffWhatLiesBelowTheUnitBefore) {
    EXPECT_EQ(formatHumanSize((std::uint64_t{3} << 30U) + (1U << 29U) + 1), "3.5 GiB");
    EXPECT_EQ(formatHumanSize(1'234'567'890), "1.14941 GiB");
}

TEST(HumanSize, EndsAtExbibytes) {
    EXPECT_EQ(formatHumanSize(std::numeric_limits<std::uint64_t>::max()), "15.999 EiB");
}

} // namespace
} // namespace agent::info
