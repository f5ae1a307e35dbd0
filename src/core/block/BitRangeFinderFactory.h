#pragma once

#include "core/block/IRangeFinder.h"

#include <memory>

namespace agent {

/// Makes range finders.
/// Owns:    nothing.
/// Threads: safe from any.
/// Fails:   with std::runtime_error for a type that doesn't exist.
class BitRangeFinderFactory {
public:
    static constexpr int bitFinder = 0;  ///< BitRangeFinder
    static constexpr int wordFinder = 1; ///< U64RangeFinder, for which the order of bits means nothing

    BitRangeFinderFactory() = default;
    BitRangeFinderFactory(const BitRangeFinderFactory&) = delete;
    BitRangeFinderFactory& operator=(const BitRangeFinderFactory&) = delete;
    BitRangeFinderFactory(BitRangeFinderFactory&&) = delete;
    BitRangeFinderFactory& operator=(BitRangeFinderFactory&&) = delete;
    virtual ~BitRangeFinderFactory() = default;

    [[nodiscard]] virtual std::unique_ptr<IRangeFinder> createRangeFinder(int type, bool targetValue,
                                                                          bool msbFirst) const;
};

} // namespace agent
