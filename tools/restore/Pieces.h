#pragma once

#include "RestorePlan.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace restore {

/// Bytes that are read at once: ranges that are close together, with the gaps between them. Reading a little
/// too much costs less than a second request.
struct Piece {
    ByteRange whole;
    std::vector<ByteRange>
        parts; ///< ascending; the first begins at whole.begin, the last ends at whole.end()

    /// The sum of the parts in bytes.
    [[nodiscard]] std::uint64_t used() const;
    /// Fills the gaps between the parts with zeros, in a buffer that holds the whole piece.
    void clearGaps(std::byte* bytes) const;
};

inline constexpr std::uint64_t largestPiece = 4UL << 20U; // bytes

/// Calls `work` for the parts of the ranges between `begin` and `end`, in ascending order.
void forEachPiece(const std::vector<ByteRange>& ranges, std::uint64_t begin, std::uint64_t end,
                  const std::function<void(const Piece& piece)>& work);

/// The number of bytes of the ranges between `begin` and `end`.
std::uint64_t bytesBetween(const std::vector<ByteRange>& ranges, std::uint64_t begin, std::uint64_t end);

} // namespace restore
