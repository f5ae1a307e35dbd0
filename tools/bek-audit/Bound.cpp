#include "Bound.h"

#include <cmath>

namespace audit {

namespace {

/// Keeps a divisor away from 0.
double awayFromZero(double value) {
    constexpr double smallest = 1e-300;
    return std::abs(value) < smallest ? smallest : value;
}

/// Evaluates the fraction by Lentz's method, which converges fast below the mean.
double continuedFraction(double a, double b, double x) {
    constexpr int mostTerms = 100000;
    constexpr double accuracy = 1e-15;
    double c = 1;
    double d = 1 / awayFromZero(1 - (a + b) * x / (a + 1));
    double value = d;
    const auto step = [&](double factor) {
        d = 1 / awayFromZero(1 + factor * d);
        c = awayFromZero(1 + factor / c);
        value *= c * d;
        return std::abs(c * d - 1) < accuracy;
    };
    for (int term = 1; term <= mostTerms; ++term) {
        const double m = term;
        step(m * (b - m) * x / ((a + 2 * m - 1) * (a + 2 * m)));
        if (step(-(a + m) * (a + b + m) * x / ((a + 2 * m) * (a + 2 * m + 1)))) {
            break;
        }
    }
    return value;
}

} // namespace

double incompleteBeta(double a, double b, double x) {
    if (x <= 0 || x >= 1) {
        return x <= 0 ? 0 : 1;
    }
    const double front =
        std::exp(std::lgamma(a + b) - std::lgamma(a) - std::lgamma(b) + a * std::log(x) + b * std::log1p(-x));
    return x < (a + 1) / (a + b + 2) ? front * continuedFraction(a, b, x) / a
                                     : 1 - front * continuedFraction(b, a, 1 - x) / b;
}

double upperBound(std::uint64_t wrong, std::uint64_t sampled, double confidence) {
    if (wrong >= sampled) {
        return 1;
    }
    const auto k = static_cast<double>(wrong);
    const auto n = static_cast<double>(sampled);
    if (wrong == 0) {
        return -std::expm1(std::log1p(-confidence) / n);
    }
    double low = k / n;
    double high = 1;
    constexpr int halvings = 60;
    for (int halving = 0; halving < halvings; ++halving) {
        const double middle = (low + high) / 2;
        (incompleteBeta(k + 1, n - k, middle) < confidence ? low : high) = middle;
    }
    return high;
}

} // namespace audit
