#include "tools/bek-audit/Bound.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>

namespace audit {
namespace {

struct Known {
    std::uint64_t wrong;
    std::uint64_t sampled;
    double confidence;
    double bound;
};

/// As printed by statistics programs, whose one-sided bounds are quantiles of beta distributions.
constexpr std::array known{
    Known{0, 1, 0.95, 0.95},         Known{0, 100, 0.95, 0.0295130}, Known{0, 10000, 0.99, 0.000460411},
    Known{1, 10, 0.95, 0.3941633},   Known{2, 20, 0.95, 0.2826185},  Known{5, 10, 0.975, 0.8129136},
    Known{9, 10, 0.95, 0.9948838},   Known{10, 10, 0.95, 1},         Known{3, 1000, 0.95, 0.0077352},
    Known{50, 100, 0.95, 0.5863783},
};

/// The probability of at most `wrong` wrong ones among `sampled`, summed term by term.
double chanceOfAtMost(std::uint64_t wrong, std::uint64_t sampled, double share) {
    double sum = 0;
    for (std::uint64_t count = 0; count <= wrong; ++count) {
        const auto k = static_cast<double>(count);
        const auto n = static_cast<double>(sampled);
        sum += std::exp(std::lgamma(n + 1) - std::lgamma(k + 1) - std::lgamma(n - k + 1) +
                        k * std::log(share) + (n - k) * std::log1p(-share));
    }
    return sum;
}

TEST(Bound, IsWhatOthersCompute) {
    for (const Known& each : known) {
        EXPECT_NEAR(upperBound(each.wrong, each.sampled, each.confidence), each.bound, 1e-6)
            << each.wrong << " of " << each.sampled;
    }
}

TEST(Bound, IsTheLastShareThatIsStillBelievable) {
    for (const std::uint64_t sampled : {2U, 17U, 400U, 100000U}) {
        for (const std::uint64_t wrong : {std::uint64_t{0}, std::uint64_t{1}, sampled / 10, sampled / 2}) {
            const double bound = upperBound(wrong, sampled, 0.99);
            EXPECT_NEAR(chanceOfAtMost(wrong, sampled, bound), 0.01, 1e-6) << wrong << " of " << sampled;
        }
    }
}

TEST(Bound, IsOneWithoutASample) {
    EXPECT_EQ(upperBound(0, 0, 0.95), 1);
}

TEST(Bound, FallsWithTheSampleAndGrowsWithWhatIsWrongAndTheConfidence) {
    for (std::uint64_t sampled = 10; sampled < 1000; sampled *= 2) {
        EXPECT_LT(upperBound(3, sampled * 2, 0.95), upperBound(3, sampled, 0.95));
        EXPECT_GT(upperBound(4, sampled, 0.95), upperBound(3, sampled, 0.95));
        EXPECT_GT(upperBound(3, sampled, 0.99), upperBound(3, sampled, 0.95));
    }
}

/// Over many random samples, the bound is below the true share no more often than the confidence level
/// allows.
TEST(Bound, CoversTheTruthAsOftenAsItSays) {
    std::mt19937_64 source(18);
    constexpr int rounds = 4000;
    for (const double share : {0.001, 0.02, 0.3}) {
        for (const int sampled : {50, 1000}) {
            int missed = 0;
            std::binomial_distribution<int> wrong(sampled, share);
            for (int round = 0; round < rounds; ++round) {
                missed += upperBound(static_cast<std::uint64_t>(wrong(source)),
                                     static_cast<std::uint64_t>(sampled), 0.95) < share
                              ? 1
                              : 0;
            }
            EXPECT_LE(missed, rounds * 0.05 + 4 * std::sqrt(rounds * 0.05 * 0.95)) << share << ' ' << sampled;
        }
    }
}

TEST(IncompleteBeta, EndsAtNothingAndAll) {
    EXPECT_EQ(incompleteBeta(3, 4, 0), 0);
    EXPECT_EQ(incompleteBeta(3, 4, 1), 1);
    EXPECT_NEAR(incompleteBeta(1, 1, 0.3), 0.3, 1e-12);
    EXPECT_NEAR(incompleteBeta(2, 3, 0.5) + incompleteBeta(3, 2, 0.5), 1, 1e-12);
}

} // namespace
} // namespace audit
