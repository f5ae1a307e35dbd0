#include "core/fs/hfs/HFSExtentsTree.h"

#include "core/fs/FSUtil.h"
#include "core/fs/hfs/HFSLayout.h"

#include <algorithm>
#include <array>
#include <bit>
#include <stdexcept>

namespace agent::core::fs {

namespace {

namespace tree_header = hfs_layout::tree_header;
namespace layout = hfs_layout::node;
namespace record_layout = hfs_layout::record;

constexpr std::uint64_t minNodeSize = 512;
constexpr std::uint64_t maxNodeSize = 32768;
constexpr std::uint64_t maxNodes = std::uint64_t{1} << 22U;   // 16 GiB of nodes of the usual size
constexpr std::uint64_t maxExtents = std::uint64_t{1} << 20U; // the number of blocks of the largest bitmap

void require(bool condition, const std::string& message) {
    if (!condition) {
        throw std::runtime_error(message);
    }
}

} // namespace

HFSExtentsTree::HFSExtentsTree(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : logger(logger), reader(reader), sectorSize(sectorSize) {}

bool HFSExtentsTree::readOverflowExtents(const HFSVolumeHeader& header, std::uint32_t fileId,
                                         std::vector<HFSExtent>& extents) {
    try {
        walk(header, {fileId, extents, countHFSBlocks(extents)});
        return true;
    } catch (const std::runtime_error& error) {
        logger.log(info::level::error, info::reason("hfs-bitmap"), "%s", error.what());
        return false;
    }
}

/// Terminates, because no node is read twice.
void HFSExtentsTree::walk(const HFSVolumeHeader& header, Search search) {
    open(header);
    readHeaderRecord();
    readRoot();
    for (; !waiting.empty(); waiting.pop()) {
        readNode(waiting.front(), search);
    }
}

void HFSExtentsTree::open(const HFSVolumeHeader& header) {
    fork = header.extents;
    blockSize = header.blockSize;
    base = fork.extents[0].startBlock * blockSize;
    waiting = {};
    require(!fork.overflows(), "Extent overflow file cannot contain an overflow of itself");
    if (const char* const reason = header.whyUnusable(fork.extents)) {
        throw std::runtime_error(reason);
    }
}

void HFSExtentsTree::readHeaderRecord() {
    std::array<std::uint8_t, tree_header::size> record{};
    require(FSUtil::readExactly(logger, reader, sectorSize, base + tree_header::position, record.data(),
                                record.size()),
            "Could not read B-Tree header");
    rootNode = bigEndian<std::uint32_t>(record, tree_header::rootNode);
    nodeSize = bigEndian<std::uint16_t>(record, tree_header::nodeSize);
    require(std::has_single_bit(nodeSize) && nodeSize >= minNodeSize && nodeSize <= maxNodeSize,
            "The node size of the HFS+ extents file is impossible");
    const std::uint64_t nodes = (countHFSBlocks(fork.extents) * blockSize + nodeSize - 1) / nodeSize;
    require(nodes <= maxNodes, "The HFS+ extents file is too large");
    isRead.assign(nodes, false);
    bytes.resize(nodeSize);
}

/// The root must be in the first extent.
void HFSExtentsTree::readRoot() {
    const std::uint64_t rootOffset = rootNode * nodeSize;
    require(rootOffset + layout::descriptorSize < fork.extents[0].blockCount * blockSize,
            "First node starts past the end of the extent");
    const HFSBTreeNode root = fetch(diskOffsetOf(rootOffset), "Failed to read node descriptor");
    require(root.kind() == layout::kindIndex, "First node is not an index node");
    isRead[rootNode] = true;
    queueChildren(root);
}

void HFSExtentsTree::readNode(std::uint32_t number, Search& search) {
    const std::uint64_t fileOffset = number * nodeSize;
    require(fileOffset + layout::descriptorSize < fork.totalBlocks * blockSize,
            "Node " + std::to_string(number) + " starts past the end of the extent");
    const std::uint64_t diskOffset = diskOffsetOf(fileOffset);
    require(diskOffset >= base, "Node offset starts before the start of the extent");
    require(!isRead[number], "A node of the HFS+ extents file is named twice");
    isRead[number] = true;
    const HFSBTreeNode node = fetch(diskOffset, "Could not read next node at " + std::to_string(diskOffset));
    switch (node.kind()) {
    case layout::kindIndex:
        queueChildren(node);
        // The table has one more entry, for the free space after the records. It must not name a child.
        require(node.child(node.recordCount()) == 0,
                "An index of the HFS+ extents file has something behind its records");
        break;
    case layout::kindLeaf:
        appendExtents(node, search);
        break;
    case layout::kindHeader:
    case layout::kindMap:
        break;
    default:
        throw std::runtime_error(std::string("HFS+ unknown node type ") + static_cast<char>(node.kind()));
    }
}

void HFSExtentsTree::queueChildren(const HFSBTreeNode& node) {
    for (std::size_t record = 0; record < node.recordCount(); ++record) {
        const std::uint32_t child = node.child(record);
        if (child != 0) {
            require(waiting.size() < isRead.size(), "The HFS+ extents file names more nodes than it has");
            waiting.push(child);
        }
    }
}

/// The file's extents in a leaf must continue where the extents so far end. Otherwise blocks would be
/// missing, or be mistaken for other blocks of the file.
void HFSExtentsTree::appendExtents(const HFSBTreeNode& leaf, Search& search) {
    for (std::size_t record = 0; record < leaf.recordCount(); ++record) {
        const auto found = leaf.fileExtents(record);
        if (!found || found->fileId != search.fileId) {
            continue;
        }
        require(found->forkType == record_layout::dataFork && found->startBlock == search.blocks,
                "Overflow extents of the HFS+ bitmap are missing or out of order");
        require(search.extents.size() < maxExtents, "The HFS+ bitmap has too many extents");
        search.extents.insert(search.extents.end(), found->extents.begin(), found->extents.end());
        search.blocks += countHFSBlocks(found->extents);
    }
}

HFSBTreeNode HFSExtentsTree::fetch(std::uint64_t diskOffset, const std::string& failure) {
    require(FSUtil::readExactly(logger, reader, sectorSize, diskOffset, bytes.data(), bytes.size()), failure);
    return HFSBTreeNode(bytes);
}

/// The position on the volume of a node of the tree's file. A node in two pieces is refused, because it is
/// read at once.
std::uint64_t HFSExtentsTree::diskOffsetOf(std::uint64_t fileOffset) const {
    std::uint64_t passed = 0;
    for (const HFSExtent& extent : fork.extents) {
        const std::uint64_t length = extent.blockCount * blockSize;
        if (fileOffset < passed + length) {
            require(fileOffset + nodeSize <= passed + length,
                    "A node of the HFS+ extents file is in two pieces");
            return extent.startBlock * blockSize + fileOffset - passed;
        }
        passed += length;
    }
    throw std::runtime_error("Couldn't get extent overflow offset: " + std::to_string(fileOffset));
}

} // namespace agent::core::fs
