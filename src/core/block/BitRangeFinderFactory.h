#pragma once

#include "core/block/IRangeFinder.h"

#include <memory>

namespace agent {

/// Creates range finders.
/// Owns:    nothing.
/// Threads: safe from any.
/// Fails:   with std::runtime_error for an unknown type.
class BitRangeFinderFactory {
public:
    static constexpr int bitFinder = 0;  ///< BitRangeFinder
    static constexpr int wordFinder = 1; ///< U64RangeFinder, which ignores the bit order

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
