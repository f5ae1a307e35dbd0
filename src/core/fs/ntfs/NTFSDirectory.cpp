#include "core/fs/ntfs/NTFSDirectory.h"

#include "core/fs/ntfs/NTFSLayout.h"
#include "core/fs/ntfs/NTFSRunReader.h"

#include <algorithm>
#include <bit>
#include <stdexcept>
#include <utility>

namespace agent::core::fs {

namespace {

namespace attribute = ntfs_layout::attribute;
namespace index_root = ntfs_layout::index_root;
namespace index_node = ntfs_layout::index_node;

constexpr std::uint64_t minBlockSize = 512;

} // namespace

NTFSDirectory::NTFSDirectory(const NTFSVolume& volume, std::uint64_t inode, const NTFSPathElement& sought)
    : volume(volume), sought(sought), record(volume) {
    if (!record.read(inode)) {
        sought.fail("Could not read MFT record for ");
    }
    indexRoot = findIndexRoot();
    if (blockSize() < minBlockSize || !std::has_single_bit(blockSize())) {
        throw std::runtime_error("Invalid index block size");
    }
}

std::uint64_t NTFSDirectory::find() const {
    Outcome outcome = descend();
    if (!outcome.record) {
        outcome.record = search();
    }
    if (!outcome.record) {
        sought.fail(outcome.reason);
    }
    return *outcome.record;
}

/// Throws if there is no index root of names: the record is that of a file, or its index isn't one of names.
std::vector<std::uint8_t> NTFSDirectory::findIndexRoot() const {
    std::optional<std::vector<std::uint8_t>> value = record.value(attribute::typeIndexRoot);
    if (!value || value->size() < index_root::size + index_node::size ||
        littleEndian<std::uint32_t>(*value, index_root::type) != index_root::typeFileName) {
        sought.fail("Could not find INDEX_ROOT for file ");
    }
    return *std::move(value);
}

std::uint64_t NTFSDirectory::blockSize() const {
    return littleEndian<std::uint32_t>(indexRoot, index_root::blockSize);
}

NTFSIndexNode NTFSDirectory::root() const {
    return {Bytes(indexRoot).subspan(index_root::size), sought};
}

NTFSIndexAllocation NTFSDirectory::blocks() const {
    std::optional<NTFSDataRuns> found = record.runs(attribute::typeIndexAllocation);
    if (!found) {
        sought.fail("Could not find INDEX_ALLOCATION for file ");
    }
    if (std::ranges::any_of(found->runs, &NTFSRun::isHole)) {
        throw std::runtime_error("Unable to read INDEX ENTRY");
    }
    return {NTFSRunReader(volume, std::move(found->runs)), blockSize(), volume.clusterBytes, sought};
}

/// Follows the tree from its root to the place of the name. Terminates, because no block is read twice.
NTFSDirectory::Outcome NTFSDirectory::descend() const {
    const NTFSIndexEntry place = firstEntryNotBefore(root());
    if (isSought(place)) {
        return {place.record()};
    }
    if (!place.hasChild()) {
        return {std::nullopt, "Entry not found - between root entries for file "};
    }
    NTFSIndexAllocation tree = blocks();
    for (std::uint64_t child = place.childVcn();;) {
        const NTFSRecord block = tree.readBlock(child);
        const NTFSIndexNode node = tree.nodeOf(block);
        const NTFSIndexEntry below = firstEntryNotBefore(node);
        if (isSought(below)) {
            return {below.record()};
        }
        if (!below.hasChild()) {
            return {std::nullopt, "Could not find entry for file "};
        }
        if (node.isLeaf()) {
            sought.fail("Index entry with child node found in a leaf node in directory ");
        }
        child = below.childVcn();
    }
}

/// Searches the whole tree. Terminates, because no block is read twice.
std::optional<std::uint64_t> NTFSDirectory::search() const {
    std::vector<std::uint64_t> children;
    std::optional<std::uint64_t> found = searchNode(root(), children);
    if (found || children.empty()) {
        return found;
    }
    NTFSIndexAllocation tree = blocks();
    while (!found && !children.empty()) {
        if (children.size() > tree.blockCount()) {
            throw std::runtime_error("Unable to read INDEX ENTRY");
        }
        const NTFSRecord block = tree.readBlock(children.back());
        children.pop_back();
        found = searchNode(tree.nodeOf(block), children);
    }
    return found;
}

bool NTFSDirectory::isSought(const NTFSIndexEntry& entry) const {
    return !entry.isLast() && sought.compare(entry.name()) == 0;
}

/// The first entry whose name isn't less than the sought name.
NTFSIndexEntry NTFSDirectory::firstEntryNotBefore(const NTFSIndexNode& node) const {
    NTFSIndexEntry entry = node.first();
    while (!entry.isLast() && sought.compare(entry.name()) > 0) {
        entry = node.after(entry);
    }
    return entry;
}

/// Searches one node, and adds the node's children to `children`, the nodes still to search.
std::optional<std::uint64_t> NTFSDirectory::searchNode(const NTFSIndexNode& node,
                                                       std::vector<std::uint64_t>& children) const {
    for (NTFSIndexEntry entry = node.first();; entry = node.after(entry)) {
        if (isSought(entry)) {
            return entry.record();
        }
        if (entry.hasChild()) {
            children.push_back(entry.childVcn());
        }
        if (entry.isLast()) {
            return std::nullopt;
        }
    }
}

} // namespace agent::core::fs
