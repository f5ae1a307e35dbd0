#include "tools/common/Text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>

namespace tools {
namespace {

TEST(SizeText, IsDecimal) {
    EXPECT_EQ(sizeText(0), "0 bytes");
    EXPECT_EQ(sizeText(1), "1 byte");
    EXPECT_EQ(sizeText(999), "999 bytes");
    EXPECT_EQ(sizeText(1000), "1.0 kB");
    EXPECT_EQ(sizeText(1'048'576), "1.0 MB");
    EXPECT_EQ(sizeText(153'400'000), "153.4 MB");
    EXPECT_EQ(sizeText(2'147'483'648), "2.1 GB");
}

TEST(SizeText, NeverShowsAThousandOfAUnit) {
    EXPECT_EQ(sizeText(999'949), "999.9 kB");
    EXPECT_EQ(sizeText(999'951), "1.0 MB");
    EXPECT_EQ(sizeText(999'999'999), "1.0 GB");
    EXPECT_EQ(sizeText(std::numeric_limits<std::uint64_t>::max()), "18.4 EB");
}

TEST(DurationText, TakesTheUnitsThatPeopleTake) {
    EXPECT_EQ(durationText(0.26), "0.3 s");
    EXPECT_EQ(durationText(59.9), "59.9 s");
    EXPECT_EQ(durationText(59.96), "1 min 0 s");
    EXPECT_EQ(durationText(250), "4 min 10 s");
    EXPECT_EQ(durationText(7500), "2 h 5 min");
}

TEST(DurationText, IsBoundedWhateverIsGiven) {
    EXPECT_EQ(durationText(-1), "0.0 s");
    EXPECT_EQ(durationText(std::numeric_limits<double>::quiet_NaN()), "0.0 s");
    EXPECT_EQ(durationText(1e300), "277777777 h 46 min");
}

TEST(Moments, AreLocalForPeopleAndUniversalForPrograms) {
    ::setenv("TZ", "UTC-1", 1); // NOLINT(concurrency-mt-unsafe): there are no threads
    ::tzset();
    EXPECT_EQ(localText(1'772'618'096), "2026-03-04 10:54:56");
    EXPECT_EQ(utcText(1'772'618'096), "2026-03-04T09:54:56Z");
    ::unsetenv("TZ"); // NOLINT(concurrency-mt-unsafe)
    ::tzset();
}

TEST(Moments, ThatHaveNoDateAreShownAsSuch) {
    EXPECT_EQ(utcText(std::numeric_limits<std::time_t>::max()), "?");
}

TEST(Plain, MovesNoCursor) {
    EXPECT_EQ(plain("a\nb\x1b[2J"), "a\\nb\\x1b[2J");
    EXPECT_LT(plain(std::string(1'000'000, 'x')).size(), 2000U);
}

} // namespace
} // namespace tools
