#include "zephane/ftp/DifferingRuns.h"

#include "zephane/wire/Limits.h"

#include <gtest/gtest.h>

#include <set>

namespace zephane {
namespace {

constexpr std::size_t unit = wire::digestUnit;

using Runs = std::vector<Run>;

Runs runsWhere(std::size_t length, const std::set<std::size_t>& differing) {
    return differingRuns(length, [&](const Run& run) { return differing.contains(run.offset / unit); });
}

TEST(DifferingRuns, NeighboursAreOneRun) {
    EXPECT_EQ(runsWhere(8 * unit, {1, 2, 5}), (Runs{{unit, 2 * unit}, {5 * unit, unit}}));
}

TEST(DifferingRuns, TheLastUnitMayBeShorter) {
    EXPECT_EQ(runsWhere(2 * unit + 1, {2}), (Runs{{2 * unit, 1}}));
    EXPECT_EQ(runsWhere(unit - 1, {0}), (Runs{{0, unit - 1}}));
}

TEST(DifferingRuns, AllOrNothing) {
    EXPECT_EQ(runsWhere(3 * unit, {0, 1, 2}), (Runs{{0, 3 * unit}}));
    EXPECT_TRUE(runsWhere(3 * unit, {}).empty());
    EXPECT_TRUE(runsWhere(0, {0}).empty());
}

} // namespace
} // namespace zephane
