#pragma once

#include "Failure.h"
#include "era/BlockReader.h"

namespace tolvubd::era {

/// Finds the blocks of an array of `count` values of `valueSize` bytes through the tree at `root`. The key of
/// each is its number among the blocks of the array. Throws EBADMSG if one is missing or occurs twice.
std::vector<Wanted> findArrayBlocks(BlockReader& reader, std::uint64_t root, std::uint64_t count,
                                    std::size_t valueSize);

/// Throws EBADMSG unless block `number` of the array holds the right number of values, of `valueSize` bytes
/// each.
void requireValues(const Block& block, std::uint64_t number, std::uint64_t count, std::size_t valueSize);

/// Calls `visit(index, value)` for each value of an array, in any order.
template <class Value, class Visit>
void walkArray(BlockReader& reader, std::uint64_t root, std::uint64_t count, const Visit& visit) {
    constexpr std::size_t each = array::valuesInBlock(sizeof(Value));
    reader.read(findArrayBlocks(reader, root, count, sizeof(Value)), array::kind,
                [&](std::uint64_t number, const Block& block) {
                    requireValues(block, number, count, sizeof(Value));
                    const std::uint64_t begin = number * each;
                    const std::size_t values = std::min<std::uint64_t>(each, count - begin);
                    for (std::size_t index = 0; index < values; ++index) {
                        const std::size_t offset = array::valuesOffset + index * sizeof(Value);
                        visit(begin + index, block.number<Value>(offset));
                    }
                });
}

} // namespace tolvubd::era
