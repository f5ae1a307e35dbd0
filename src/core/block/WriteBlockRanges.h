#pragma once

#include "core/block/BlockRange.h"

#include <cstdint>
#include <ostream>
#include <set>

namespace agent {

/// Writes a bitmap with the bits of `ranges` set to a seekable stream: the file gets the length of
/// `totalBits` bits, and the bits lie from the byte `baseOffset` on. Returns how many bits are set.
/// Throws PosixError if the stream fails, and std::runtime_error if ranges overlap by a byte.
std::uint64_t writeBlockRanges(std::ostream& out, const std::set<BlockRange>& ranges, std::uint64_t totalBits,
                               std::uint64_t baseOffset, bool msbFirst);

} // namespace agent
