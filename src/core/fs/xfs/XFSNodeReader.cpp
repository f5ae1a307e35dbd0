#include "core/fs/xfs/XFSNodeReader.h"

#include "core/fs/ByteOrder.h"
#include "core/fs/FSUtil.h"
#include "core/fs/xfs/XFSLayout.h"

#include <stdexcept>

namespace agent::core::fs {

namespace {

namespace layout = xfs_layout::node;

void require(bool condition, const char* message) {
    if (!condition) {
        throw std::runtime_error(message);
    }
}

} // namespace

XFSNodeReader::XFSNodeReader(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize,
                             XFSGroup group, bool traces)
    : logger(logger),
      reader(reader),
      sectorSize(sectorSize),
      group(group),
      traces(traces),
      block(group.blockSize) {}

XFSParserImpl::XFSBTreeNode XFSNodeReader::read(std::uint32_t agBlock) {
    require(agBlock != layout::none, "XFS: cannot create null btree node");
    require(agBlock < group.agBlocks, "XFS: btree node outside of its allocation group.");
    fetch(agBlock);
    XFSParserImpl::XFSBTreeNode node;
    readHeader(node);
    readRecords(node);
    if (!node.isLeaf()) {
        readChildren(node);
    }
    if (traces) {
        trace(node);
    }
    return node;
}

/// Reads the whole block at once. If that fails, `ensureRead` reads only the needed parts: the unreadable
/// part may be unused.
void XFSNodeReader::fetch(std::uint32_t agBlock) {
    address = group.blockSize * (agBlock + std::uint64_t{group.agBlocks} * group.number);
    if (traces) {
        logger.log(info::level::debug, "btn addr = %lu", address);
    }
    isBlockRead = FSUtil::readExactly(logger, reader, sectorSize, address, block.data(), block.size());
}

bool XFSNodeReader::ensureRead(std::size_t offset, std::size_t length) {
    return isBlockRead ||
           FSUtil::readExactly(logger, reader, sectorSize, address + offset, block.data() + offset, length);
}

void XFSNodeReader::readHeader(XFSParserImpl::XFSBTreeNode& node) {
    require(ensureRead(0, layout::headerSizeCrc), "XFS: cannot read btree node header");
    node.magic = bigEndian<std::uint32_t>(block, layout::magic);
    require(node.magic == layout::magicValue || node.magic == layout::magicValueCrc,
            "XFS: Invalid btree node magic number.");
    node.level = bigEndian<std::uint16_t>(block, layout::level);
    node.numRecs = bigEndian<std::uint16_t>(block, layout::numRecs);
    node.leftSib = bigEndian<std::uint32_t>(block, layout::leftSib);
    node.rightSib = bigEndian<std::uint32_t>(block, layout::rightSib);
    headerSize = node.magic == layout::magicValueCrc ? layout::headerSizeCrc : layout::headerSize;
    require(node.numRecs <= capacity(node.isLeaf()), "XFS: Invalid num_recs in btree node.");
    require(node.isLeaf() || node.numRecs > 0, "XFS: Internal node can't have 0 records.");
}

std::size_t XFSNodeReader::capacity(bool isLeaf) const {
    return (block.size() - headerSize) /
           (isLeaf ? layout::recordSize : layout::recordSize + layout::childSize);
}

void XFSNodeReader::readRecords(XFSParserImpl::XFSBTreeNode& node) {
    const std::size_t length = node.numRecs * layout::recordSize;
    require(node.numRecs == 0 || ensureRead(headerSize, length), "XFS: Can't read records in btree node.");
    node.records.reserve(node.numRecs);
    for (std::size_t offset = headerSize; offset < headerSize + length; offset += layout::recordSize) {
        node.records.push_back({bigEndian<std::uint32_t>(block, offset),
                                bigEndian<std::uint32_t>(block, offset + sizeof(std::uint32_t))});
    }
}

void XFSNodeReader::readChildren(XFSParserImpl::XFSBTreeNode& node) {
    const std::size_t first = headerSize + capacity(false) * layout::recordSize;
    const std::size_t length = node.numRecs * layout::childSize;
    require(ensureRead(first, length), "XFS: Can't read children in btree node.");
    node.children.reserve(node.numRecs);
    for (std::size_t offset = first; offset < first + length; offset += layout::childSize) {
        node.children.push_back(bigEndian<std::uint32_t>(block, offset));
    }
}

void XFSNodeReader::trace(const XFSParserImpl::XFSBTreeNode& node) {
    info::LogEntry(logger, info::level::debug) << "---BTN HERE---";
    logger.log(info::level::debug, "magic 0x%x", node.magic);
    logger.log(info::level::debug, "level %u", unsigned{node.level});
    logger.log(info::level::debug, "num_recs %u", unsigned{node.numRecs});
    logger.log(info::level::debug, "left_sib %u", node.leftSib);
    logger.log(info::level::debug, "right_sib %u", node.rightSib);
    info::LogEntry(logger, info::level::debug) << "---BTN END---";
}

} // namespace agent::core::fs
