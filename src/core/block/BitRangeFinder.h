#pragma once

#include "core/block/IRangeFinder.h"

namespace agent {

/// Finds the runs of bits of one value in a bitmap. Uniform parts of the bitmap cost about as much as reading
/// the memory; the cost of other parts grows with the number of runs.
class BitRangeFinder : public IRangeFinder {
public:
    /// `msbFirst`: whether the first bit of a byte is its most significant one.
    BitRangeFinder(bool targetValue, bool msbFirst) noexcept : targetValue(targetValue), msbFirst(msbFirst) {}

    /// `count` is in bits. An empty bitmap throws std::invalid_argument, too.
    [[nodiscard]] std::vector<BlockRange> findRanges(const void* map, std::uint64_t count) const override;

private:
    [[nodiscard]] std::vector<BlockRange> lookupAlgorithm(const std::uint8_t* bitmap,
                                                          std::uint64_t bits) const;

    bool targetValue;
    bool msbFirst;
};

} // namespace agent
