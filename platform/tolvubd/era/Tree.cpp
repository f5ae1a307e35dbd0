#include "era/Tree.h"

#include "Failure.h"

namespace tolvubd::era {

namespace {

constexpr int mostLevels = 8; // with half-full nodes, 126^8 values
constexpr std::uint32_t keySize = 8;
constexpr std::uint32_t placeSize = 8;

/// The header of a node, checked to have room for its entries.
struct Node {
    bool isInternal;
    std::uint32_t entries;
    std::uint32_t mostEntries;
    std::uint32_t valueSize;
};

Node readNode(const Block& block, std::uint32_t leafValueSize) {
    const std::uint32_t flags = block.number32(node::flagsOffset);
    const bool isInternal = flags == node::isInternal;
    const Node head{isInternal, block.number32(node::entriesOffset), block.number32(node::mostEntriesOffset),
                    isInternal ? placeSize : leafValueSize};
    if ((!isInternal && flags != node::isLeaf) || block.number32(node::valueSizeOffset) != head.valueSize ||
        head.mostEntries > (blockSize - node::keysOffset) / (keySize + head.valueSize) ||
        head.entries > head.mostEntries) {
        fail(EBADMSG, "a node of the era metadata");
    }
    return head;
}

} // namespace

void walkTree(BlockReader& reader, std::uint64_t root, std::uint32_t valueSize, const VisitValue& visit) {
    std::vector<Wanted> level = {reader.claim(root, 0)};
    for (int depth = 0; !level.empty(); ++depth) {
        if (depth == mostLevels) {
            fail(EBADMSG, "the depth of a tree of the era metadata");
        }
        std::vector<Wanted> next;
        reader.read(level, node::kind, [&](std::uint64_t /*key*/, const Block& block) {
            const Node head = readNode(block, valueSize);
            const std::size_t values = node::keysOffset + std::size_t{head.mostEntries} * keySize;
            for (std::size_t entry = 0; entry < head.entries; ++entry) {
                const std::uint64_t key = block.number64(node::keysOffset + entry * keySize);
                const std::size_t offset = values + entry * head.valueSize;
                if (head.isInternal) {
                    next.push_back(reader.claim(block.number64(offset), key));
                } else {
                    visit(key, block, offset);
                }
            }
        });
        level = std::move(next);
    }
}

} // namespace tolvubd::era
