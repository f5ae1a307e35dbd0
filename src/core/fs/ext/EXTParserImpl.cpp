#include "core/fs/ext/EXTParserImpl.h"

#include "core/fs/Bits.h"
#include "core/fs/FSUtil.h"
#include "core/fs/LoggedBuffer.h"
#include "core/fs/ext/EXTLayout.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace agent::core::fs {

namespace {

namespace super_block = ext_layout::super_block;
namespace descriptor = ext_layout::descriptor;

constexpr std::uint64_t byteBits = 8;
constexpr std::uint32_t largestLogBlockSize = 6;     // blocks of 64 KiB
constexpr std::uint64_t longestRead = 1024UL * 1024; // of descriptors, or of bitmaps side by side

} // namespace

EXTParserImpl::EXTParserImpl(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : logger(logger), reader(reader), sectorSize(sectorSize) {}

bool EXTParserImpl::recognize() {
    std::array<std::uint8_t, super_block::size> block{};
    if (!FSUtil::readExactly(logger, reader, sectorSize, super_block::position, block.data(), block.size())) {
        logger.log(info::level::error, "Could not read EXT super block.");
        return false;
    }
    if (littleEndian<std::uint16_t>(block, super_block::magic) != super_block::magicValue) {
        return false;
    }
    descriptorSize = littleEndian<std::uint16_t>(block, super_block::descriptorSize);
    blocksPerGroup = littleEndian<std::uint32_t>(block, super_block::blocksPerGroup);
    blockCount = littleEndian<std::uint32_t>(block, super_block::blockCount);
    logBlockSize = littleEndian<std::uint32_t>(block, super_block::logBlockSize);
    firstDataBlock = littleEndian<std::uint32_t>(block, super_block::firstDataBlock);
    incompatFeatures = littleEndian<std::uint32_t>(block, super_block::incompatFeatures);
    roCompatFeatures = littleEndian<std::uint32_t>(block, super_block::roCompatFeatures);
    inodesPerGroup = littleEndian<std::uint32_t>(block, super_block::inodesPerGroup);
    firstMetaBlock = littleEndian<std::uint32_t>(block, super_block::firstMetaBlock);
    const bool is64Bit = (incompatFeatures & super_block::feature64Bit) != 0;
    blockCountHigh = is64Bit ? littleEndian<std::uint32_t>(block, super_block::blockCountHigh) : 0;
    return true;
}

std::int64_t EXTParserImpl::getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                           std::size_t bufferBytes) {
    if (blockCount < startBlock) {
        return fail("Invalid start block");
    }
    if (buffer == nullptr) {
        return fail("Invalid bitmap buffer");
    }
    if (const char* reason = objection()) {
        return fail(reason);
    }
    std::memset(buffer, 0, bufferBytes);
    GroupBitmaps bitmaps;
    if (!readDescriptors(bitmaps)) {
        return fail("Can't read bgd table");
    }
    return copyGroups(bitmaps, startBlock, buffer, bufferBytes * byteBits);
}

/// Why the super block can't be believed, or the map can't be read as one of blocks; null if it can. What is
/// refused here is copied whole, whereas a map that is read wrongly would leave live blocks out.
const char* EXTParserImpl::objection() const {
    if ((roCompatFeatures & super_block::featureBigAlloc) != 0) {
        return "EXT bitmaps of clusters are not supported";
    }
    if (logBlockSize > largestLogBlockSize) {
        return "The EXT block size is impossible";
    }
    if (blocksPerGroup == 0 || blocksPerGroup > blockSize() * byteBits) {
        return "The EXT group size is impossible";
    }
    if (firstDataBlock > 1 || firstDataBlock > blockCount) {
        return "The first EXT data block is impossible";
    }
    if (stride() < descriptor::size || stride() > blockSize() || !std::has_single_bit(stride())) {
        return "The EXT descriptor size is impossible";
    }
    if (stride() * groupCount() > blocksPerGroup * blockSize()) {
        return "The EXT descriptors don't fit in the first group";
    }
    return descriptorsLieInOnePlace() ? nullptr : "EXT descriptors in meta groups are not supported";
}

/// With meta groups only the first descriptor blocks stand behind the super block. Read on from there, the
/// data of files would be taken for descriptors.
bool EXTParserImpl::descriptorsLieInOnePlace() const {
    const std::uint64_t oneBlockAtLeast = std::max(firstMetaBlock, 1U);
    return (incompatFeatures & super_block::featureMetaGroups) == 0 ||
           stride() * groupCount() <= oneBlockAtLeast * blockSize();
}

std::uint64_t EXTParserImpl::groupCount() const {
    const std::uint64_t blocks = blockCount - firstDataBlock;
    return blocks == 0 ? 0 : (blocks - 1) / blocksPerGroup + 1;
}

std::uint64_t EXTParserImpl::stride() const {
    return (incompatFeatures & super_block::feature64Bit) != 0 ? descriptorSize : descriptor::size;
}

/// The table is read in pieces, so that no more memory is taken than the device has bytes for, and of each
/// descriptor only what is needed is kept.
bool EXTParserImpl::readDescriptors(GroupBitmaps& bitmaps) {
    const std::uint64_t position = (firstDataBlock + std::uint64_t{1}) * blockSize();
    const std::uint64_t length = stride() * groupCount();
    std::vector<std::uint8_t> piece(std::min(length, longestRead)); // whole descriptors: both are powers of 2
    for (std::uint64_t done = 0; done < length; done += piece.size()) {
        piece.resize(std::min(length - done, longestRead));
        if (!FSUtil::readExactly(logger, reader, sectorSize, position + done, piece.data(), piece.size())) {
            return false;
        }
        for (std::uint64_t offset = 0; offset < piece.size(); offset += stride()) {
            bitmaps.push_back(decode(Bytes(piece).subspan(offset, stride()), bitmaps.size()));
        }
    }
    return true;
}

EXTParserImpl::GroupBitmap EXTParserImpl::decode(Bytes bytes, std::uint64_t group) const {
    // The high half counts only where the file system has that many blocks.
    const bool hasHighHalf = blockCountHigh != 0 && bytes.size() >= descriptor::sizeWithHighHalves;
    return {littleEndian<std::uint32_t>(bytes, descriptor::blockBitmap),
            (littleEndian<std::uint16_t>(bytes, descriptor::flags) & descriptor::flagBlockUninit) != 0,
            hasHighHalf && littleEndian<std::uint32_t>(bytes, descriptor::blockBitmapHigh) != 0,
            hasLiveInodes(bytes, group)};
}

/// Whether files have inodes in the group, and their table is among its blocks. No kernel leaves such a group
/// without a written block bitmap, but tools that fill an unmounted file system do.
bool EXTParserImpl::hasLiveInodes(Bytes bytes, std::uint64_t group) const {
    std::uint32_t freeInodes = littleEndian<std::uint16_t>(bytes, descriptor::freeInodes);
    if (bytes.size() >= descriptor::sizeWithHighHalves) {
        const std::uint32_t high = littleEndian<std::uint16_t>(bytes, descriptor::freeInodesHigh);
        freeInodes |= high << 16U;
    }
    const std::uint64_t table = littleEndian<std::uint32_t>(bytes, descriptor::inodeTable);
    const std::uint64_t groupFirst = firstDataBlock + std::uint64_t{blocksPerGroup} * group;
    return freeInodes != inodesPerGroup && table >= groupFirst && table < groupFirst + blocksPerGroup;
}

/// A bitmap can be neither the boot block nor the super block, nor lie outside of the file system.
bool EXTParserImpl::isPlausible(const GroupBitmap& bitmap) const {
    return bitmap.block > firstDataBlock && !bitmap.isOutOfReach &&
           (bitmap.block < blockCount || blockCountHigh != 0);
}

/// Bitmaps that stand side by side are read at once: with flexible groups that is the rule.
std::int64_t EXTParserImpl::copyGroups(const GroupBitmaps& bitmaps, std::uint64_t startBlock,
                                       std::uint8_t* buffer, std::uint64_t bufferBits) {
    std::uint64_t described = 0;
    if (maps.empty()) {
        maps = createLoggedBuffer(std::min(longestRead, bitmaps.size() * blockSize()), sectorSize, logger);
    }
    const auto* const map = static_cast<const std::uint8_t*>(static_cast<const void*>(maps.data()));
    std::uint64_t firstRead = 0; // the groups whose bitmaps are in `maps`
    std::uint64_t endRead = 0;
    for (std::uint64_t group = startBlock == 0 ? 0 : (startBlock - firstDataBlock) / blocksPerGroup;
         group < bitmaps.size(); ++group) {
        if (bitmaps[group].uninitialized && bitmaps[group].hasLiveInodes) {
            return fail("A group without a block bitmap has files in its inode table");
        }
        if (!bitmaps[group].uninitialized && group >= endRead) {
            firstRead = group;
            endRead = group + neighbours(bitmaps, group);
            const std::size_t length = (endRead - firstRead - 1) * blockSize() + groupBitmapBytes();
            if (!isPlausible(bitmaps[group]) ||
                !FSUtil::readExactly(logger, reader, sectorSize, bitmaps[group].block * blockSize(),
                                     maps.data(), length)) {
                return fail("Can't read bitmap");
            }
        }
        const Stretch stretch = stretchOf(group, startBlock);
        described = stretch.first + stretch.count - startBlock;
        if (described > bufferBits) {
            return -1;
        }
        if (!bitmaps[group].uninitialized) {
            copyBits(buffer, stretch.first - startBlock, map + (group - firstRead) * blockSize(), stretch.bit,
                     stretch.count);
        }
    }
    return static_cast<std::int64_t>(described);
}

/// The blocks of a group from `startBlock` on. The first group counts from the first data block even if
/// that stands behind the start: what is before it is left as free.
EXTParserImpl::Stretch EXTParserImpl::stretchOf(std::uint64_t group, std::uint64_t startBlock) const {
    const std::uint64_t groupFirst = firstDataBlock + std::uint64_t{blocksPerGroup} * group;
    const std::uint64_t first = std::max(groupFirst, startBlock);
    const std::uint64_t end = std::min<std::uint64_t>(groupFirst + blocksPerGroup, blockCount);
    return {first, first - groupFirst, end - first};
}

/// How many groups from this one on have their bitmaps in blocks that follow each other, as far as one read
/// goes.
std::uint64_t EXTParserImpl::neighbours(const GroupBitmaps& bitmaps, std::uint64_t group) const {
    const std::uint64_t most = std::min<std::uint64_t>(bitmaps.size() - group, longestRead / blockSize());
    std::uint64_t count = 1;
    while (count < most && !bitmaps[group + count].uninitialized && isPlausible(bitmaps[group + count]) &&
           bitmaps[group + count].block == bitmaps[group].block + count) {
        ++count;
    }
    return count;
}

std::int64_t EXTParserImpl::fail(const char* reason) {
    logger.log(info::level::error, "%s", reason);
    return -1;
}

} // namespace agent::core::fs
