#pragma once

#include "core/block/BlockRange.h"

#include <cstdint>
#include <ostream>
#include <vector>

namespace agent {

/// How GoogleTest prints a range.
inline void PrintTo(const BlockRange& range, std::ostream* out) {
    *out << range.start << "+" << range.length;
}

} // namespace agent

/// Reference implementations of finding, merging and cutting ranges: one block at a time, slow, but simple
/// enough to trust.
namespace agent::test {

/// The runs of blocks below `count` for which the predicate is true.
template <typename Predicate>
std::vector<BlockRange> referenceRuns(std::uint64_t count, Predicate wanted) {
    std::vector<BlockRange> runs;
    for (std::uint64_t block = 0; block < count; ++block) {
        if (!wanted(block)) {
            continue;
        }
        if (!runs.empty() && runs.back().end() == block) {
            ++runs.back().length;
        } else {
            runs.push_back({block, 1});
        }
    }
    return runs;
}

inline bool referenceBit(const std::uint8_t* bitmap, std::uint64_t index, bool msbFirst) {
    const std::uint64_t shift = msbFirst ? 7 - index % 8 : index % 8;
    return (bitmap[index / 8] >> shift & 1U) != 0;
}

/// The runs of bits that have the target value.
inline std::vector<BlockRange> referenceBitRanges(const std::uint8_t* bitmap, std::uint64_t bits,
                                                  bool targetValue, bool msbFirst) {
    return referenceRuns(
        bits, [&](std::uint64_t bit) { return referenceBit(bitmap, bit, msbFirst) == targetValue; });
}

/// The ranges of `totalBlocks` blocks that remain after the exclusions. An exclusion whose end overflows
/// excludes nothing. An empty exclusion only splits a range at its start.
inline std::vector<BlockRange> referenceIncluded(const std::vector<BlockRange>& exclusions,
                                                 std::uint64_t totalBlocks) {
    std::vector<bool> excluded(totalBlocks);
    std::vector<bool> divided(totalBlocks);
    for (const BlockRange& range : exclusions) {
        for (std::uint64_t block = range.start; block < range.end() && block < totalBlocks; ++block) {
            excluded[block] = true;
        }
        if (range.empty() && range.start < totalBlocks) {
            divided[range.start] = true;
        }
    }
    std::vector<BlockRange> included;
    for (std::uint64_t block = 0; block < totalBlocks; ++block) {
        if (excluded[block]) {
            continue;
        }
        if (!included.empty() && included.back().end() == block && !divided[block]) {
            ++included.back().length;
        } else {
            included.push_back({block, 1});
        }
    }
    return included;
}

/// Splits each range, from its start, into chunks of at most `most` blocks.
inline std::vector<BlockRange> referenceChunks(const std::vector<BlockRange>& ranges, std::uint64_t most) {
    std::vector<BlockRange> chunks;
    for (const BlockRange& range : ranges) {
        for (std::uint64_t block = 0; block < range.length; ++block) {
            if (block % most == 0) {
                chunks.push_back({range.start + block, 0});
            }
            ++chunks.back().length;
        }
    }
    return chunks;
}

} // namespace agent::test
