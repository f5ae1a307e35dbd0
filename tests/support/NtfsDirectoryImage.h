#pragma once

#include "support/NtfsImage.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace agent::test {

/// Adds directories to an NTFS volume in memory. Entries of a node are written in the order in which they are
/// given.
class NtfsDirectoryImage : public NtfsImage {
public:
    using Child = std::optional<std::uint64_t>; ///< the VCN of an index block
    struct Entry {
        std::u16string name;
        std::uint64_t record = 0;
        Child child = std::nullopt;
    };
    using Entries = std::vector<Entry>;

    static constexpr std::uint32_t indexRoot = 0x90;
    static constexpr std::uint32_t indexAllocation = 0xA0;
    static constexpr std::uint64_t rootDirectory = 5;

    using NtfsImage::NtfsImage;

    /// A directory whose entries are all in its index root.
    void setDirectory(std::uint64_t record, const Entries& entries) {
        setRecord(record, {indexRootOf(nodeOf(entries))});
    }

    /// A directory with index blocks in these runs. The end entry of its root points to the block
    /// `lastChild`.
    void setDirectory(std::uint64_t record, const Entries& entries, std::uint64_t lastChild,
                      const Runs& blocks, std::uint32_t blockSize = 4096) {
        setRecord(record, {indexRootOf(nodeOf(entries, lastChild), blockSize), indexAllocationOf(blocks)});
    }

    static Content nodeOf(const Entries& entries, Child lastChild = std::nullopt) {
        Content node(16);
        for (const Entry& entry : entries) {
            const Content bytes = entryOf(entry);
            node.insert(node.end(), bytes.begin(), bytes.end());
        }
        Content last(16);
        finish(last, 2, lastChild);
        node.insert(node.end(), last.begin(), last.end());
        put(node, 0, 16, 4);
        put(node, 4, node.size(), 4);
        put(node, 8, node.size(), 4);
        put(node, 12, lastChild ? 1 : 0, 1);
        return node;
    }

    static Content indexRootOf(const Content& node, std::uint32_t blockSize = 4096) {
        Content value(16);
        put(value, 0, fileName, 4);
        put(value, 4, 1, 4);
        put(value, 8, blockSize, 4);
        value.insert(value.end(), node.begin(), node.end());
        return resident(indexRoot, value);
    }

    static Content indexAllocationOf(const Runs& runs) {
        Content attribute = dataOf(runs);
        put(attribute, 0, indexAllocation, 4);
        return attribute;
    }

    /// Writes an index block to consecutive clusters.
    void setBlock(std::uint64_t cluster, std::uint64_t vcn, const Content& node,
                  std::uint32_t blockSize = 4096) {
        volume.write(cluster * clusterBytes, blockOf(vcn, node, blockSize));
    }

    static Content blockOf(std::uint64_t vcn, Content node, std::uint32_t blockSize = 4096) {
        const std::size_t sequence = 40;
        const std::size_t first = (sequence + 2UL * (blockSize / 512 + 1) + 7) / 8 * 8;
        const std::size_t gap = first - sequence; // between the node header and its entries
        put(node, 0, 16 + gap, 4);
        put(node, 4, node.size() + gap, 4);
        node.insert(node.begin() + 16, gap, 0);
        Content block(24);
        put(block, 0, 0x58444E49, 4);
        put(block, 4, sequence, 2);
        put(block, 6, blockSize / 512 + 1, 2);
        put(block, 16, vcn, 8);
        block.insert(block.end(), node.begin(), node.end());
        block.resize(blockSize);
        applyUpdateSequence(block, sequence);
        return block;
    }

private:
    static Content entryOf(const Entry& entry) {
        Content bytes(16 + 66);
        put(bytes, 0, entry.record | std::uint64_t{3} << 48U, 8); // with a sequence number in the upper bits
        put(bytes, 10, 66 + 2 * entry.name.size(), 2);
        put(bytes, 16 + 64, entry.name.size(), 1);
        for (const char16_t unit : entry.name) {
            bytes.push_back(static_cast<std::uint8_t>(unit));
            bytes.push_back(static_cast<std::uint8_t>(unit >> 8U));
        }
        finish(bytes, 0, entry.child);
        return bytes;
    }

    /// Pads an entry to a multiple of 8, appends the child's VCN, and sets the length and flags.
    static void finish(Content& entry, std::uint16_t flags, Child child) {
        entry.resize((entry.size() + 7) / 8 * 8);
        if (child) {
            entry.resize(entry.size() + 8);
            put(entry, entry.size() - 8, *child, 8);
            flags |= 1U;
        }
        put(entry, 8, entry.size(), 2);
        put(entry, 12, flags, 2);
    }
};

} // namespace agent::test
