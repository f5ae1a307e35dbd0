#include "era/Array.h"

#include "Failure.h"
#include "era/Tree.h"

#include <algorithm>

namespace tolvubd::era {

std::vector<Wanted> findArrayBlocks(BlockReader& reader, std::uint64_t root, std::uint64_t count,
                                    std::size_t valueSize) {
    const std::size_t each = array::valuesInBlock(valueSize);
    const std::uint64_t expected = (count + each - 1) / each;
    if (expected > reader.blocks()) {
        fail(EBADMSG, "an array of the era metadata is larger than all of it");
    }
    std::vector<bool> found(expected);
    std::vector<Wanted> blocks;
    walkTree(reader, root, sizeof(std::uint64_t),
             [&](std::uint64_t number, const Block& node, std::size_t offset) {
                 if (number >= expected || found[number]) {
                     fail(EBADMSG, "an array of the era metadata has a block too many");
                 }
                 found[number] = true;
                 blocks.push_back(reader.claim(node.number64(offset), number));
             });
    if (blocks.size() != expected) {
        fail(EBADMSG, "an array of the era metadata lacks a block");
    }
    return blocks;
}

void requireValues(const Block& block, std::uint64_t number, std::uint64_t count, std::size_t valueSize) {
    const std::size_t each = array::valuesInBlock(valueSize);
    if (block.number32(array::valueSizeOffset) != valueSize ||
        block.number32(array::mostEntriesOffset) != each ||
        block.number32(array::entriesOffset) != std::min<std::uint64_t>(each, count - number * each)) {
        fail(EBADMSG, "a block of an array of the era metadata");
    }
}

} // namespace tolvubd::era
