#include "core/fs/hfs/HFSBTreeNode.h"

#include "core/fs/hfs/HFSLayout.h"

#include <stdexcept>

namespace agent::core::fs {

namespace {

namespace layout = hfs_layout::node;
namespace record_layout = hfs_layout::record;
namespace extent = hfs_layout::extent;

void require(bool isWithin) {
    if (!isWithin) {
        throw std::runtime_error("A record of the HFS+ extents file is outside of its node");
    }
}

} // namespace

std::uint8_t HFSBTreeNode::kind() const {
    return bytes[layout::kind];
}

std::size_t HFSBTreeNode::recordCount() const {
    return bigEndian<std::uint16_t>(bytes, layout::recordCount);
}

std::uint32_t HFSBTreeNode::child(std::size_t record) const {
    const std::size_t offset = tableEntry(record);
    return offset == 0 ? 0 : bigEndian<std::uint32_t>(value(offset, record_layout::childSize), 0);
}

std::optional<HFSBTreeNode::FileExtents> HFSBTreeNode::fileExtents(std::size_t record) const {
    const std::size_t offset = tableEntry(record);
    if (offset == 0) {
        return std::nullopt;
    }
    const Bytes extents = value(offset, extent::size * extent::perRecord);
    const Bytes key = bytes.subspan(offset);
    if (bigEndian<std::uint16_t>(key, record_layout::keyLength) != record_layout::extentKeyLength) {
        throw std::runtime_error("A key in the HFS+ extents file isn't that of an extent");
    }
    return FileExtents{key[record_layout::forkType], bigEndian<std::uint32_t>(key, record_layout::fileId),
                       bigEndian<std::uint32_t>(key, record_layout::startBlock), decodeHFSExtents(extents)};
}

/// The offset of a record in the node; 0 if there is no record.
std::size_t HFSBTreeNode::tableEntry(std::size_t record) const {
    const std::size_t fromEnd = layout::tableEntry * (record + 1);
    require(layout::descriptorSize + fromEnd <= bytes.size());
    return bigEndian<std::uint16_t>(bytes, bytes.size() - fromEnd);
}

/// The value after the key of the record at `offset`.
Bytes HFSBTreeNode::value(std::size_t offset, std::size_t length) const {
    require(offset >= layout::descriptorSize && offset + record_layout::keyLengthSize <= bytes.size());
    const std::size_t keyLength = bigEndian<std::uint16_t>(bytes, offset + record_layout::keyLength);
    const std::size_t begin = offset + record_layout::keyLengthSize + keyLength;
    require(begin + length <= bytes.size());
    return bytes.subspan(begin, length);
}

} // namespace agent::core::fs
