#pragma once

#include "core/block/IBlockRangeProvider.h"
#include "core/block/RangeIterator.h"

#include <cstddef>
#include <stdexcept>
#include <utility>
#include <vector>

namespace agent::test {

/// A range provider that provides the given ranges and can be made to fail.
class FixedRanges : public core::block::IBlockRangeProvider {
public:
    static constexpr std::size_t never = ~std::size_t{0};

    /// Reading the range at index `failAt`, if it exists, throws an int, which is not a std::exception.
    explicit FixedRanges(std::vector<BlockRange> ranges, std::size_t failAt = never)
        : ranges(std::move(ranges)), failAt(failAt) {}

    class Position : public core::block::RangeIterator<Position, FixedRanges> {
    public:
        Position(const FixedRanges& provider, std::size_t index) : RangeIterator(provider), index(index) {}
        bool operator==(const Position& other) const { return index == other.index; }

    private:
        friend RangeIterator;

        [[nodiscard]] bool isAtEnd() const { return index == provider->ranges.size(); }
        [[nodiscard]] const BlockRange& currentRange() const {
            if (index == provider->failAt) {
                throw 1; // NOLINT(hicpp-exception-baseclass): that is what is tried
            }
            return provider->ranges[index];
        }
        void advance() { ++index; }

        std::size_t index;
    };

    [[nodiscard]] core::block::BlockRangeIterator begin() const override {
        return core::block::handleOf(Position(*this, 0));
    }
    [[nodiscard]] core::block::BlockRangeIterator end() const override {
        return core::block::handleOf(Position(*this, ranges.size()));
    }
    [[nodiscard]] std::uint64_t size() const override {
        std::uint64_t blocks = 0;
        for (const BlockRange& range : ranges) {
            blocks += range.length;
        }
        return blocks;
    }
    [[nodiscard]] std::string name() const override { return "Fixed Ranges"; }

private:
    std::vector<BlockRange> ranges;
    std::size_t failAt;
};

/// All ranges that a provider provides.
inline std::vector<BlockRange> allOf(const core::block::IBlockRangeProvider& provider) {
    std::vector<BlockRange> ranges;
    for (const BlockRange& range : provider) {
        ranges.push_back(range);
    }
    return ranges;
}

} // namespace agent::test
