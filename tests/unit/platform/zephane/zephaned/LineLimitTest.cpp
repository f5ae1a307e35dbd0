#include "zephane/zephaned/LineLimit.h"

#include <gtest/gtest.h>

namespace zephane {
namespace {

TEST(LineLimit, LetsSomeThroughAndSaysHowManyItHasNot) {
    LineLimit limit;
    const auto begin = LineLimit::Clock::now();
    for (std::size_t line = 0; line < LineLimit::lines; ++line) {
        EXPECT_TRUE(limit.ask(begin).isAllowed);
    }
    EXPECT_FALSE(limit.ask(begin).isAllowed);
    EXPECT_FALSE(limit.ask(begin + LineLimit::span - std::chrono::seconds{1}).isAllowed);
    const LineLimit::Verdict later = limit.ask(begin + LineLimit::span);
    EXPECT_TRUE(later.isAllowed);
    EXPECT_EQ(later.leftOut, 2U);
    EXPECT_EQ(limit.ask(begin + LineLimit::span).leftOut, 0U);
}

} // namespace
} // namespace zephane
