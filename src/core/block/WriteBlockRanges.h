#pragma once

#include "core/block/BlockRange.h"

#include <cstdint>
#include <ostream>
#include <set>

namespace agent {

/// Writes a bitmap in which the bits of `ranges` are set to a seekable stream, from byte `baseOffset` on, and
/// returns the number of these bits. First extends the stream to `totalBits` / 8 bytes, plus one byte if that
/// isn't a multiple of 8. Throws PosixError if the stream fails, and std::runtime_error if a range begins
/// before the last byte of the previous one.
std::uint64_t writeBlockRanges(std::ostream& out, const std::set<BlockRange>& ranges, std::uint64_t totalBits,
                               std::uint64_t baseOffset, bool msbFirst);

} // namespace agent
