#pragma once

#include <cstdint>

namespace audit {

/// The one-sided upper bound of Clopper and Pearson: the largest share of wrong items in a population that is
/// still plausible at this confidence, after `wrong` of `sampled` items drawn at random were found wrong. It
/// assumes drawing with replacement, and is on the safe side for drawing without. Returns 1 if nothing was
/// drawn.
double upperBound(std::uint64_t wrong, std::uint64_t sampled, double confidence);

/// The regularised incomplete beta function, for `a` and `b` above 0 and `x` from 0 to 1.
double incompleteBeta(double a, double b, double x);

} // namespace audit
