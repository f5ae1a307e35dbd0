#include "core/block/BitRangeFinder.h"
#include "core/block/BlockRangeProviderFactory.h"
#include "core/block/U64RangeFinder.h"
#include "support/FixedRanges.h"
#include "support/ReferenceRanges.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

/// The input gives bitmaps, word maps, and excluders with arbitrary numbers. Finding, merging and cutting
/// ranges must give the same result as checking every block.
namespace agent::test {
namespace {

using Ranges = std::vector<BlockRange>;
using Bytes = std::vector<std::uint8_t>;

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// Takes numbers off the front of the input; zeros when it is used up.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : data(data), left(size) {}

    std::uint8_t byte() {
        if (left == 0) {
            return 0;
        }
        --left;
        return *data++;
    }

    /// Mostly small, sometimes of any size.
    std::uint64_t number() {
        std::uint64_t number = byte();
        for (int more = number == 0xff ? 8 : 0; more > 0; --more) {
            number = number << 8U | byte();
        }
        return number;
    }

    [[nodiscard]] Bytes rest() const { return {data, data + left}; }

private:
    const std::uint8_t* data;
    std::size_t left;
};

void checkBits(const Bytes& bitmap, std::uint64_t bits, bool targetValue, bool msbFirst) {
    const Ranges expected = referenceBitRanges(bitmap.data(), bits, targetValue, msbFirst);
    const BitRangeFinder finder(targetValue, msbFirst);
    require(finder.findRanges(bitmap.data(), bits) == expected);
}

void checkWords(const Bytes& map, bool targetValue) {
    const std::uint64_t count = map.size() / sizeof(std::uint64_t);
    const Ranges expected = referenceRuns(count, [&](std::uint64_t index) {
        std::uint64_t word = 0;
        std::memcpy(&word, map.data() + index * sizeof(word), sizeof(word));
        return (word != 0) == targetValue;
    });
    require(U64RangeFinder(targetValue).findRanges(map.data(), count) == expected);
}

void checkFinders(Input input) {
    const std::uint8_t flags = input.byte();
    const Bytes map = input.rest();
    const std::uint64_t padding = flags >> 4U & 7U;
    if (map.size() * 8 > padding) {
        checkBits(map, map.size() * 8 - padding, (flags & 2U) != 0, (flags & 4U) != 0);
        checkWords(map, (flags & 2U) != 0);
    }
}

std::vector<Ranges> exclusionsOf(Input& input) {
    std::vector<Ranges> exclusions(input.byte() % 5);
    for (Ranges& ranges : exclusions) {
        ranges.resize(input.byte() % 32);
        for (BlockRange& range : ranges) {
            range = {input.number(), input.number()};
        }
        std::sort(ranges.begin(), ranges.end());
    }
    return exclusions;
}

void checkWalk(Input input) {
    const std::uint64_t totalBlocks = input.byte() * std::uint64_t{2};
    const std::uint64_t maxBlocksPerChunk = input.number() | 1U;
    Ranges all;
    info::Logger logger({});
    const core::block::BlockRangeProviderFactory factory(logger, nullptr);
    std::vector<std::unique_ptr<core::block::IBlockRangeProvider>> excluders;
    for (const Ranges& ranges : exclusionsOf(input)) {
        all.insert(all.end(), ranges.begin(), ranges.end());
        excluders.push_back(std::make_unique<FixedRanges>(ranges));
    }
    auto included = factory.createIncludedProvider(std::move(excluders), totalBlocks);
    const Ranges expected = referenceIncluded(all, totalBlocks);
    require(allOf(*included) == expected);
    require(allOf(*factory.createChunkProvider(std::move(included), maxBlocksPerChunk)) ==
            referenceChunks(expected, maxBlocksPerChunk));
}

} // namespace
} // namespace agent::test

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    agent::test::Input input(data, size);
    if (input.byte() % 2 == 0) {
        agent::test::checkFinders(input);
    } else {
        agent::test::checkWalk(input);
    }
    return 0;
}
