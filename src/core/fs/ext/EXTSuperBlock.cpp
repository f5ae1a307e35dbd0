#include "core/fs/ext/EXTSuperBlock.h"

#include "core/fs/ext/EXTFeatures.h"

#include <algorithm>
#include <bit>

namespace agent::core::fs {

namespace {

namespace layout = ext_layout::super_block;
namespace descriptor = ext_layout::descriptor;

constexpr std::uint64_t byteBits = 8;
constexpr std::uint16_t oldInodeSize = 128; // of revision 0

bool isPowerOf(std::uint64_t base, std::uint64_t number) {
    while (number % base == 0) {
        number /= base;
    }
    return number == 1;
}

} // namespace

EXTSuperBlock EXTSuperBlock::decode(Bytes bytes) {
    const auto word = [bytes](std::size_t offset) { return littleEndian<std::uint32_t>(bytes, offset); };
    const auto half = [bytes](std::size_t offset) { return littleEndian<std::uint16_t>(bytes, offset); };
    EXTSuperBlock super;
    super.descriptorSize = half(layout::descriptorSize);
    super.blocksPerGroup = word(layout::blocksPerGroup);
    super.blockCount = word(layout::blockCount);
    super.logBlockSize = word(layout::logBlockSize);
    super.firstDataBlock = word(layout::firstDataBlock);
    super.incompatFeatures = word(layout::incompatFeatures);
    super.roCompatFeatures = word(layout::roCompatFeatures);
    super.blockCountHigh = super.hasIncompat(layout::feature64Bit) ? word(layout::blockCountHigh) : 0;
    super.compatFeatures = word(layout::compatFeatures);
    super.firstMetaBlock = word(layout::firstMetaBlock);
    super.inodesPerGroup = word(layout::inodesPerGroup);
    super.inodeSize = word(layout::revision) == 0 ? oldInodeSize : half(layout::inodeSize);
    super.reservedDescriptors = half(layout::reservedDescriptors);
    super.backupGroups = {word(layout::backupGroups), word(layout::backupGroups + sizeof(std::uint32_t))};
    return super;
}

/// A volume that is refused here is copied completely. A map that is read wrongly would leave out used
/// blocks.
std::string EXTSuperBlock::whyUnusable() const {
    if (hasRoCompat(layout::featureBigAlloc)) {
        return "EXT bitmaps of clusters are not supported";
    }
    if (hasIncompat(layout::featureRecover)) {
        return "The EXT journal needs recovery, so the bitmaps may be out of date";
    }
    if (const std::string names = unsupportedEXTFeatures(incompatFeatures, roCompatFeatures);
        !names.empty()) {
        return "EXT bitmaps can't be read with these features: " + names;
    }
    if (const char* reason = impossibleGeometry()) {
        return reason;
    }
    return areDescriptorsContiguous() ? "" : "EXT descriptors in meta groups are not supported";
}

const char* EXTSuperBlock::impossibleGeometry() const {
    if (!hasPossibleBlockSize()) {
        return "The EXT block size is impossible";
    }
    if (blocksPerGroup == 0 || blocksPerGroup > blockSize() * byteBits) {
        return "The EXT group size is impossible";
    }
    if (firstDataBlock != (logBlockSize == 0 ? 1U : 0U) || firstDataBlock > blockCount) {
        return "The first EXT data block is impossible";
    }
    if (stride() < descriptor::size || stride() > blockSize() || !std::has_single_bit(stride())) {
        return "The EXT descriptor size is impossible";
    }
    return stride() * groupCount() > blocksPerGroup * blockSize()
               ? "The EXT descriptors don't fit in the first group"
               : nullptr;
}

/// With meta groups, only the first descriptor blocks follow the superblock. Reading on after them would take
/// file data for descriptors.
bool EXTSuperBlock::areDescriptorsContiguous() const {
    return !hasIncompat(layout::featureMetaGroups) || descriptorBlocks() <= std::max(firstMetaBlock, 1U);
}

std::uint64_t EXTSuperBlock::groupCount() const {
    const std::uint64_t blocks = blockCount - firstDataBlock;
    return blocks == 0 ? 0 : (blocks - 1) / blocksPerGroup + 1;
}

std::uint64_t EXTSuperBlock::firstBlockOf(std::uint64_t group) const {
    return firstDataBlock + std::uint64_t{blocksPerGroup} * group;
}

std::uint64_t EXTSuperBlock::stride() const {
    return hasIncompat(layout::feature64Bit) ? descriptorSize : descriptor::size;
}

bool EXTSuperBlock::groupsHaveFlags() const {
    return hasRoCompat(layout::featureUninitGroups | layout::featureChecksums);
}

std::uint64_t EXTSuperBlock::inodeTableBlocks() const {
    return (std::uint64_t{inodesPerGroup} * inodeSize + blockSize() - 1) / blockSize();
}

std::uint64_t EXTSuperBlock::headBlocksOf(std::uint64_t group) const {
    const std::uint64_t superBlocks = hasSuperBlock(group) ? 1 : 0;
    if (hasIncompat(layout::featureMetaGroups) && firstMetaBlock == 0) {
        return superBlocks + metaDescriptorBlocksOf(group);
    }
    const std::uint64_t table = hasIncompat(layout::featureMetaGroups) ? firstMetaBlock : descriptorBlocks();
    return superBlocks * (1 + table + reservedDescriptors);
}

/// How many blocks all descriptors take.
std::uint64_t EXTSuperBlock::descriptorBlocks() const {
    return (stride() * groupCount() + blockSize() - 1) / blockSize();
}

/// A meta group has as many groups as one block has descriptors. That block of descriptors is in the meta
/// group's first group, with copies in the second and the last group.
std::uint64_t EXTSuperBlock::metaDescriptorBlocksOf(std::uint64_t group) const {
    const std::uint64_t groups = blockSize() / stride();
    const std::uint64_t within = group % groups;
    return within < 2 || within == groups - 1 ? 1 : 0;
}

/// The first group has the superblock itself; some other groups have a backup of it.
bool EXTSuperBlock::hasSuperBlock(std::uint64_t group) const {
    if ((compatFeatures & layout::featureSparseSuper2) != 0) {
        return group == 0 || group == backupGroups[0] || group == backupGroups[1];
    }
    return group <= 1 || !hasRoCompat(layout::featureSparseSuper) || isPowerOf(3, group) ||
           isPowerOf(5, group) || isPowerOf(7, group);
}

} // namespace agent::core::fs
