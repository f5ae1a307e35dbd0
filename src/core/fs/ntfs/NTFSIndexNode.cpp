#include "core/fs/ntfs/NTFSIndexNode.h"

#include "core/fs/ntfs/NTFSLayout.h"

#include <cstdint>

namespace agent::core::fs {

namespace {

namespace layout = ntfs_layout::index_node;
namespace index_entry = ntfs_layout::index_entry;

} // namespace

NTFSIndexNode::NTFSIndexNode(Bytes bytes, const NTFSPathElement& sought) : bytes(bytes), sought(sought) {
    const std::size_t used = usedBytes(bytes);
    require(used >= layout::size && used <= bytes.size());
    this->bytes = bytes.first(used);
}

std::size_t NTFSIndexNode::usedBytes(Bytes bytes) {
    return littleEndian<std::uint32_t>(bytes, layout::usedBytes);
}

bool NTFSIndexNode::isLeaf() const {
    return (bytes[layout::flags] & layout::hasChildren) == 0;
}

NTFSIndexEntry NTFSIndexNode::first() const {
    return at(littleEndian<std::uint32_t>(bytes, layout::firstEntry));
}

NTFSIndexEntry NTFSIndexNode::after(const NTFSIndexEntry& entry) const {
    return at(entry.end());
}

NTFSIndexEntry NTFSIndexNode::at(std::size_t position) const {
    require(position >= layout::size && position + index_entry::size <= bytes.size());
    const std::size_t length = littleEndian<std::uint16_t>(bytes, position + index_entry::length);
    if (length == 0) {
        sought.fail("Zero length index entry for file ");
    }
    require(length >= index_entry::size && length <= bytes.size() - position);
    const NTFSIndexEntry entry(bytes.subspan(position, length), position);
    require(entry.isSound());
    return entry;
}

void NTFSIndexNode::require(bool isInside) const {
    if (!isInside) {
        sought.fail("Index entry out of bounds in inode for file ");
    }
}

} // namespace agent::core::fs
