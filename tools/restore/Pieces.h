#pragma once

#include "RestorePlan.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace restore {

/// What is read at once: some ranges that lie close together, with what is between them. Reading a little too
/// much costs less than asking twice.
struct Piece {
    ByteRange whole;
    std::vector<ByteRange>
        parts; ///< ascending; the first begins where it begins, the last ends where it ends

    /// Bytes of the parts.
    [[nodiscard]] std::uint64_t used() const;
    /// Makes what lies between the parts zeros, in memory that holds the whole.
    void clearGaps(std::byte* bytes) const;
};

inline constexpr std::uint64_t largestPiece = 4UL << 20U; // bytes

/// Calls `work` with what of the ranges is between two places, in their order.
void forEachPiece(const std::vector<ByteRange>& ranges, std::uint64_t begin, std::uint64_t end,
                  const std::function<void(const Piece& piece)>& work);

/// How many bytes of the ranges are between two places.
std::uint64_t bytesBetween(const std::vector<ByteRange>& ranges, std::uint64_t begin, std::uint64_t end);

} // namespace restore
