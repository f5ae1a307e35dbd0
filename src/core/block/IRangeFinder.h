#pragma once

#include "core/block/BlockRange.h"

#include <cstdint>
#include <vector>

namespace agent {

/// Turns a map with one element for each block into the ranges of blocks whose elements have a certain value.
/// Owns:    nothing.
/// Threads: immutable; safe from any.
/// Fails:   with std::invalid_argument if the map is null.
class IRangeFinder {
public:
    IRangeFinder() = default;
    IRangeFinder(const IRangeFinder&) = delete;
    IRangeFinder& operator=(const IRangeFinder&) = delete;
    IRangeFinder(IRangeFinder&&) = delete;
    IRangeFinder& operator=(IRangeFinder&&) = delete;
    virtual ~IRangeFinder() = default;

    /// The longest possible ranges, ascending, relative to the start of the map. `map` needs no alignment;
    /// `count` is in elements.
    [[nodiscard]] virtual std::vector<BlockRange> findRanges(const void* map, std::uint64_t count) const = 0;
};

} // namespace agent
