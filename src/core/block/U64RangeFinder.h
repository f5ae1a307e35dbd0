#pragma once

#include "core/block/IRangeFinder.h"

namespace agent {

/// Finds the runs of 64-bit words that are not 0 (`targetValue` true), or that are 0 (false).
class U64RangeFinder : public IRangeFinder {
public:
    explicit U64RangeFinder(bool targetValue) noexcept : targetValue(targetValue) {}

    /// `count` is in words, and may be 0.
    [[nodiscard]] std::vector<BlockRange> findRanges(const void* map, std::uint64_t count) const override;

private:
    bool targetValue;
};

} // namespace agent
