#pragma once

#include "core/block/BlockRangeIterator.h"

#include <cstdint>
#include <string>

namespace agent::core::block {

/// A sequence of block ranges, ascending by their start. The ranges are computed during iteration.
/// Owns:    the providers and maps that its ranges come from; it must outlive its iterators.
/// Threads: one at a time.
/// Fails:   by exception, from this object or from an iterator.
class IBlockRangeProvider {
public:
    IBlockRangeProvider() = default;
    IBlockRangeProvider(const IBlockRangeProvider&) = delete;
    IBlockRangeProvider& operator=(const IBlockRangeProvider&) = delete;
    IBlockRangeProvider(IBlockRangeProvider&&) = delete;
    IBlockRangeProvider& operator=(IBlockRangeProvider&&) = delete;
    virtual ~IBlockRangeProvider() = default;

    [[nodiscard]] virtual BlockRangeIterator begin() const = 0;
    [[nodiscard]] virtual BlockRangeIterator end() const = 0;
    /// An estimate of how many blocks the ranges cover; for showing progress only.
    [[nodiscard]] virtual std::uint64_t size() const = 0;
    /// For log lines.
    [[nodiscard]] virtual std::string name() const = 0;
};

} // namespace agent::core::block
