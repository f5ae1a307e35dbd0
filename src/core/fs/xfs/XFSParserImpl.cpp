#include "core/fs/xfs/XFSParserImpl.h"

#include "core/fs/Bits.h"
#include "core/fs/ByteOrder.h"
#include "core/fs/FSUtil.h"
#include "core/fs/xfs/XFSBTreeNode.h"
#include "core/fs/xfs/XFSLayout.h"
#include "core/fs/xfs/XFSNodeReader.h"
#include "core/fs/xfs/XFSUsedMap.h"

#include <algorithm>
#include <array>
#include <bit>
#include <stdexcept>

namespace agent::core::fs {

namespace {

namespace super_block = xfs_layout::super_block;
namespace agf = xfs_layout::agf;
namespace agfl = xfs_layout::agfl;
namespace node = xfs_layout::node;

constexpr std::uint64_t byteBits = 8;
constexpr std::uint32_t minBlockSize = 512;
constexpr std::uint32_t minSectorSize = 512;
constexpr std::uint32_t maxBlockSize = 65536;
constexpr std::uint64_t maxVolumeBytes = std::uint64_t{1} << 62U; // bytes, so that sums stay below 2^63

/// Ends the walk with the result -1, after the failure has been logged.
struct WalkFailed {};

/// Detects a loop in a chain of blocks without storing the chain: remembers one block, and replaces it with
/// the current block after 1, 2, 4, ... steps (Brent's algorithm).
class LoopWatch {
public:
    explicit LoopWatch(std::uint32_t first) : remembered(first) {}

    bool comesBack(std::uint32_t block) {
        if (block == remembered) {
            return true;
        }
        if (++steps == limit) {
            remembered = block;
            steps = 0;
            limit *= 2;
        }
        return false;
    }

private:
    std::uint32_t remembered;
    std::uint64_t steps = 0;
    std::uint64_t limit = 1;
};

} // namespace

XFSParserImpl::XFSParserImpl(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : logger(logger), reader(reader), sectorSize(sectorSize) {}

/// Only reads the superblock. getBitmapChunk checks whether its numbers are plausible.
bool XFSParserImpl::recognize() {
    std::array<std::uint8_t, super_block::size> block{};
    if (!FSUtil::readExactly(logger, reader, sectorSize, 0, block.data(), block.size())) {
        info::LogEntry(logger, info::level::error) << "Can't read super block.";
        return false;
    }
    magic = bigEndian<std::uint32_t>(block, super_block::magic);
    if (magic != super_block::magicValue) {
        return false;
    }
    blockSize = bigEndian<std::uint32_t>(block, super_block::blockSize);
    totalBlocks = bigEndian<std::uint64_t>(block, super_block::totalBlocks);
    agBlocks = bigEndian<std::uint32_t>(block, super_block::agBlocks);
    agCount = bigEndian<std::uint32_t>(block, super_block::agCount);
    version = bigEndian<std::uint16_t>(block, super_block::version);
    decodeFormat(block);
    logger.log(info::level::debug, "magic 0x%x", magic);
    logger.log(info::level::debug, "block_size %u", blockSize);
    logger.log(info::level::debug, "ag_count %u", agCount);
    logger.log(info::level::debug, "ag_blocks %u", agBlocks);
    logger.log(info::level::debug, "total_blocks %lu", totalBlocks);
    logger.log(info::level::debug, "version %u", unsigned{version});
    return true;
}

void XFSParserImpl::decodeFormat(Bytes block) {
    headSectorSize = bigEndian<std::uint16_t>(block, super_block::sectorSize);
    features = {};
    features.hasCrc = hasCrc();
    if (hasCrc()) {
        features.incompat = bigEndian<std::uint32_t>(block, super_block::incompatFeatures);
        features.roCompat = bigEndian<std::uint32_t>(block, super_block::roCompatFeatures);
    } else if ((version & super_block::versionMoreFeatures) != 0) {
        features.features2 = bigEndian<std::uint32_t>(block, super_block::features2);
    }
}

std::int64_t XFSParserImpl::getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                           std::size_t bufferBytes) {
    const std::uint64_t bufferBits = bufferBytes * byteBits;
    traces = logger.isEnabled(info::level::debug);
    logger.log(info::level::debug, "buf off = %lu, buffer_size = %lu", startBlock, bufferBytes);
    if (startBlock >= totalBlocks || startBlock % byteBits != 0) {
        clearMap(buffer, bufferBytes);
        return startBlock >= totalBlocks ? 0 : -1;
    }
    XFSUsedMap map(buffer, bufferBytes, startBlock);
    try {
        markFreeBlocks(map);
    } catch (const WalkFailed&) {
        return -1;
    } catch (const std::runtime_error& error) {
        logger.log(info::level::error, info::reason("xfs-free-space"), "%s", error.what());
        return -1;
    }
    // In a chunk that isn't the first, this may reach past the volume's end, where no caller looks.
    const std::uint64_t bytes = std::min<std::uint64_t>(bufferBytes, (totalBlocks - 1) / byteBits + 1);
    map.finish(bytes);
    if (traces) {
        logger.log(info::level::debug, "count = %lu", countClearBits(buffer, bytes));
    }
    return static_cast<std::int64_t>(std::min(bufferBits, totalBlocks - startBlock));
}

/// Why the superblock isn't plausible, or why the B-trees can't be read; empty if all is well. A volume that
/// is refused here is copied completely. B-trees that are read wrongly would leave out used blocks.
std::string XFSParserImpl::whyUnusable() const {
    if (!hasCrc() && (version & super_block::versionMask) != super_block::versionPlain) {
        return "XFS: Unknown version of the format.";
    }
    if ((features.incompat & super_block::featureNeedsRepair) != 0) {
        return "XFS: The volume needs repair.";
    }
    if (const std::string names = unsupportedXFSFeatures(features); !names.empty()) {
        return "XFS: Free space can't be read with these features: " + names;
    }
    const char* const reason = impossibleGeometry();
    return reason == nullptr ? "" : reason;
}

const char* XFSParserImpl::impossibleGeometry() const {
    if (!std::has_single_bit(blockSize) || blockSize < minBlockSize || blockSize > maxBlockSize) {
        return "XFS: Impossible block size.";
    }
    if (!std::has_single_bit(headSectorSize) || headSectorSize < minSectorSize ||
        headSectorSize > blockSize) {
        return "XFS: Impossible sector size.";
    }
    if (agBlocks == 0 || totalBlocks > std::uint64_t{agBlocks} * agCount) {
        return "XFS: Impossible allocation groups.";
    }
    return totalBlocks > maxVolumeBytes / blockSize ? "XFS: Impossible number of blocks." : nullptr;
}

void XFSParserImpl::markFreeBlocks(XFSUsedMap& map) {
    if (const std::string reason = whyUnusable(); !reason.empty()) {
        throw std::runtime_error(reason);
    }
    const std::uint64_t firstGroup = map.firstBlock() / agBlocks;
    const std::uint64_t endGroup = (map.endBlock() + agBlocks - 1) / agBlocks;
    logger.log(info::level::debug, "Iterating over allocation group(s) %u - %u",
               static_cast<std::uint32_t>(firstGroup), static_cast<std::uint32_t>(endGroup));
    for (std::uint64_t group = firstGroup; group < endGroup && group < agCount; ++group) {
        markGroup(map, static_cast<std::uint32_t>(group));
    }
}

void XFSParserImpl::markGroup(XFSUsedMap& map, std::uint32_t group) {
    const FreeSpaceInfo info = readFreeSpaceInfo(group);
    markFreeList(map, group, info);
    info::LogEntry(logger, info::level::debug) << "Reading the root b+ node.";
    markTree(map, group, info.root);
}

bool XFSParserImpl::hasCrc() const {
    return (version & super_block::versionMask) == super_block::versionCrc;
}

std::uint64_t XFSParserImpl::groupAddress(std::uint32_t group) const {
    return std::uint64_t{agBlocks} * blockSize * group;
}

std::uint64_t XFSParserImpl::headAddress(std::uint32_t group, std::uint64_t sector) const {
    return groupAddress(group) + sector * headSectorSize;
}

XFSParserImpl::FreeSpaceInfo XFSParserImpl::readFreeSpaceInfo(std::uint32_t group) {
    info::LogEntry(logger, info::level::debug) << "Reading the free space info.";
    const std::uint64_t address = headAddress(group, agf::sector);
    logger.log(info::level::debug, "fsi addr = %lu", address);
    std::array<std::uint8_t, agf::size> bytes{};
    if (!FSUtil::readExactly(logger, reader, sectorSize, address, bytes.data(), bytes.size())) {
        throw std::runtime_error("Can't read fsi block.");
    }
    const auto magicFound = bigEndian<std::uint32_t>(bytes, agf::magic);
    if (magicFound != agf::magicValue) {
        throw std::runtime_error("Invalid fsi magic number.");
    }
    const FreeSpaceInfo info{
        bigEndian<std::uint32_t>(bytes, agf::offsetBtRoot), bigEndian<std::uint32_t>(bytes, agf::flFirst),
        bigEndian<std::uint32_t>(bytes, agf::flLast), bigEndian<std::uint32_t>(bytes, agf::flCount)};
    logger.log(info::level::debug, "magic 0x%x", magicFound);
    logger.log(info::level::debug, "fl_first %u", info.listFirst);
    logger.log(info::level::debug, "fl_last %u", info.listLast);
    logger.log(info::level::debug, "offset_bt_root %u", info.root);
    return info;
}

std::vector<std::uint32_t> XFSParserImpl::readFreeList(std::uint32_t group) {
    info::LogEntry(logger, info::level::debug) << "Reading the allocation group free list.";
    logger.log(info::level::debug, "agfl addr = %lu, len = %lu",
               std::uint64_t{group} * agBlocks + agfl::sector * headSectorSize, agfl::size);
    std::vector<std::uint8_t> bytes(hasCrc() ? agfl::crcSize : agfl::size);
    const std::uint64_t address = headAddress(group, agfl::sector) + (hasCrc() ? agfl::crcHeader : 0);
    if (!FSUtil::readExactly(logger, reader, sectorSize, address, bytes.data(), bytes.size())) {
        throw WalkFailed();
    }
    std::vector<std::uint32_t> blocks;
    for (std::size_t offset = 0; offset < bytes.size(); offset += sizeof(std::uint32_t)) {
        blocks.push_back(bigEndian<std::uint32_t>(bytes, offset));
    }
    return blocks;
}

/// Ignores a list that wraps around the end of its array, and a list whose count doesn't match its first and
/// last entry. An empty list has these entries, too, and kernels differ in where the array ends, so the
/// listed blocks may be in use again. With sectors larger than 512 bytes, the list on disk has more entries
/// than are read; their blocks stay used.
void XFSParserImpl::markFreeList(XFSUsedMap& map, std::uint32_t group, const FreeSpaceInfo& info) {
    const std::vector<std::uint32_t> blocks = readFreeList(group);
    info::LogEntry(logger, info::level::debug) << "Marking free list";
    const std::uint64_t listed = std::uint64_t{info.listLast} + 1;
    if (info.listFirst >= listed || listed - info.listFirst != info.listCount) {
        return;
    }
    const std::uint64_t end = std::min<std::uint64_t>(listed, blocks.size());
    for (std::uint64_t index = info.listFirst; index < end; ++index) {
        logger.log(info::level::debug, "%u: %u -> %u", group, blocks[index], 1U);
        markFree(map, group, blocks[index], 1);
    }
}

/// Reads each level once, from the leftmost child of the level above along the chain of siblings.
void XFSParserImpl::markTree(XFSUsedMap& map, std::uint32_t group, std::uint32_t root) {
    XFSNodeReader nodes(logger, reader, sectorSize, {blockSize, agBlocks, group}, traces);
    const XFSBTreeNode top = nodes.read(root);
    markRecords(map, group, top);
    std::uint32_t leftmost = top.isLeaf() ? node::none : top.children.front();
    for (std::uint32_t level = top.level; level-- > 0;) {
        leftmost = markLevel(map, group, nodes, {leftmost, level});
    }
}

/// Returns the leftmost child of the level's leftmost node, or node::none.
std::uint32_t XFSParserImpl::markLevel(XFSUsedMap& map, std::uint32_t group, XFSNodeReader& nodes,
                                       Level level) {
    LoopWatch watch(level.leftmost);
    std::uint32_t leftmostChild = node::none;
    std::uint32_t block = level.leftmost;
    do {
        const XFSBTreeNode current = nodes.read(block);
        if (current.level != level.number) {
            throw std::runtime_error("XFS: Invalid level in btree node.");
        }
        markRecords(map, group, current);
        if (block == level.leftmost && !current.isLeaf()) {
            leftmostChild = current.children.front();
        }
        block = current.rightSib;
        if (watch.comesBack(block)) {
            throw std::runtime_error("XFS: The siblings of a btree node form a loop.");
        }
    } while (block != node::none);
    return leftmostChild;
}

void XFSParserImpl::markRecords(XFSUsedMap& map, std::uint32_t group, const XFSBTreeNode& node) {
    if (!node.isLeaf()) {
        return; // these are keys; the records are in the leaves
    }
    for (const XFSBTreeNode::Record& record : node.records) {
        if (traces) {
            logger.log(info::level::debug, "%u: %u -> %u", group, record.startBlock, record.blockCount);
        }
        markFree(map, group, record.startBlock, record.blockCount);
    }
}

void XFSParserImpl::markFree(XFSUsedMap& map, std::uint32_t group, std::uint32_t agBlock,
                             std::uint32_t blocks) const {
    if (std::uint64_t{agBlock} + blocks > groupBlocks(group)) {
        throw std::runtime_error("XFS: Free blocks outside of their allocation group.");
    }
    map.markFree(std::uint64_t{group} * agBlocks + agBlock, blocks);
}

/// The last group may be shorter than the others.
std::uint64_t XFSParserImpl::groupBlocks(std::uint32_t group) const {
    const std::uint64_t first = std::uint64_t{group} * agBlocks;
    return first < totalBlocks ? std::min<std::uint64_t>(agBlocks, totalBlocks - first) : 0;
}

} // namespace agent::core::fs
