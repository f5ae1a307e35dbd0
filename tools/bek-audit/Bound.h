#pragma once

#include <cstdint>

namespace audit {

/// The largest share of a population that is still believable, with this confidence, after `wrong` of
/// `sampled` that were drawn at random have been found wrong: the upper bound of Clopper and Pearson,
/// one-sided. It is that of drawing with putting back, and holds for drawing without all the more. 1 if
/// nothing was drawn.
double upperBound(std::uint64_t wrong, std::uint64_t sampled, double confidence);

/// The regularised incomplete beta function, for `a` and `b` above 0 and `x` from 0 to 1.
double incompleteBeta(double a, double b, double x);

} // namespace audit
