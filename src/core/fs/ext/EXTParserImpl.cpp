#include "core/fs/ext/EXTParserImpl.h"

#include "core/fs/Bits.h"
#include "core/fs/FSUtil.h"
#include "core/fs/LoggedBuffer.h"
#include "core/fs/ext/EXTLayout.h"

#include <algorithm>
#include <array>

namespace agent::core::fs {

namespace {

namespace super_block = ext_layout::super_block;
namespace descriptor = ext_layout::descriptor;

constexpr std::uint64_t byteBits = 8;
constexpr std::uint64_t maxReadBytes = 1024UL * 1024; // bytes of descriptors, or of adjacent bitmaps

} // namespace

EXTParserImpl::EXTParserImpl(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : logger(logger), reader(reader), sectorSize(sectorSize) {}

bool EXTParserImpl::recognize() {
    std::array<std::uint8_t, super_block::size> block{};
    if (!FSUtil::readExactly(logger, reader, sectorSize, super_block::position, block.data(), block.size())) {
        info::LogEntry(logger, info::level::error) << "Could not read EXT super block.";
        return false;
    }
    if (littleEndian<std::uint16_t>(block, super_block::magic) != super_block::magicValue) {
        return false;
    }
    super = EXTSuperBlock::decode(block);
    return true;
}

/// 0 if the superblock's block size is impossible; then there is no map, either.
std::uint32_t EXTParserImpl::getBlockSize() const {
    return super.hasPossibleBlockSize() ? static_cast<std::uint32_t>(super.blockSize()) : 0;
}

std::int64_t EXTParserImpl::getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                           std::size_t bufferBytes) {
    if (super.blockCount < startBlock) {
        return fail("Invalid start block");
    }
    if (buffer == nullptr) {
        return fail("Invalid bitmap buffer");
    }
    if (const std::string reason = super.whyUnusable(); !reason.empty()) {
        return fail(reason);
    }
    clearMap(buffer, bufferBytes);
    GroupBitmaps bitmaps;
    if (!readDescriptors(bitmaps)) {
        return fail("Can't read bgd table");
    }
    return copyGroups(bitmaps, {buffer, startBlock, bufferBytes * byteBits});
}

/// Reads the table in pieces, so that a wrong group count fails at the device's end before it takes more
/// memory than the device has bytes. Keeps only the needed fields of each descriptor.
bool EXTParserImpl::readDescriptors(GroupBitmaps& bitmaps) {
    const std::uint64_t position = (super.firstDataBlock + std::uint64_t{1}) * super.blockSize();
    const std::uint64_t stride = super.stride();
    const std::uint64_t length = stride * super.groupCount();
    std::vector<std::uint8_t> piece(
        std::min(length, maxReadBytes)); // whole descriptors: both are powers of 2
    for (std::uint64_t done = 0; done < length; done += piece.size()) {
        piece.resize(std::min(length - done, maxReadBytes));
        if (!FSUtil::readExactly(logger, reader, sectorSize, position + done, piece.data(), piece.size())) {
            return false;
        }
        for (std::uint64_t offset = 0; offset < piece.size(); offset += stride) {
            bitmaps.push_back(decode(Bytes(piece).subspan(offset, stride)));
        }
    }
    return true;
}

EXTParserImpl::GroupBitmap EXTParserImpl::decode(Bytes bytes) const {
    // The high half is only valid if the file system has more than 2^32 blocks.
    const bool hasHighHalf = super.blockCountHigh != 0 && bytes.size() >= descriptor::sizeWithHighHalves;
    const auto flags = littleEndian<std::uint16_t>(bytes, descriptor::flags);
    return {littleEndian<std::uint32_t>(bytes, descriptor::blockBitmap),
            littleEndian<std::uint32_t>(bytes, descriptor::inodeBitmap),
            littleEndian<std::uint32_t>(bytes, descriptor::inodeTable),
            super.groupsHaveFlags() && (flags & descriptor::flagBlockUninit) != 0,
            hasHighHalf && littleEndian<std::uint32_t>(bytes, descriptor::blockBitmapHigh) != 0};
}

/// A bitmap can't be the boot block or the superblock, and can't be outside the file system.
bool EXTParserImpl::isPlausible(const GroupBitmap& bitmap) const {
    return bitmap.block > super.firstDataBlock && !bitmap.exceeds32Bits &&
           (bitmap.block < super.blockCount || super.blockCountHigh != 0);
}

/// Copies the groups' bitmaps, from `used.startBlock` on, to the caller's map. If a group's bitmap was never
/// written, only the group's own metadata is marked as used. Returns how many blocks the map describes, or
/// -1.
std::int64_t EXTParserImpl::copyGroups(const GroupBitmaps& bitmaps, const UsedMap& used) {
    std::uint64_t described = 0;
    firstRead = endRead = 0;
    markBootBlock(used);
    const std::uint64_t start = std::max<std::uint64_t>(used.startBlock, super.firstDataBlock);
    for (std::uint64_t group = (start - super.firstDataBlock) / super.blocksPerGroup; group < bitmaps.size();
         ++group) {
        const bool isWritten = !bitmaps[group].uninitialized;
        const std::uint8_t* const bitmap = isWritten ? bitmapOf(bitmaps, group) : nullptr;
        if (isWritten && bitmap == nullptr) {
            return fail("Can't read bitmap");
        }
        const Stretch stretch = stretchOf(group, used.startBlock);
        described = stretch.first + stretch.count - used.startBlock;
        if (described > used.bits) {
            return -1;
        }
        if (isWritten) {
            copyBits(used.buffer, stretch.first - used.startBlock, bitmap, stretch.bit, stretch.count);
        } else {
            markStructures(used, stretch, group, bitmaps[group]);
        }
    }
    return static_cast<std::int64_t>(described);
}

/// A group's bitmap in memory, or null. Adjacent bitmaps are read at once; with flexible groups (flex_bg)
/// most bitmaps are adjacent.
const std::uint8_t* EXTParserImpl::bitmapOf(const GroupBitmaps& bitmaps, std::uint64_t group) {
    if (maps.empty()) {
        maps = createLoggedBuffer(std::min(maxReadBytes, bitmaps.size() * super.blockSize()), sectorSize,
                                  logger);
    }
    if (group >= endRead) {
        firstRead = group;
        endRead = group + neighbours(bitmaps, group);
        const std::size_t length = (endRead - firstRead - 1) * super.blockSize() + super.groupBitmapBytes();
        if (!isPlausible(bitmaps[group]) ||
            !FSUtil::readExactly(logger, reader, sectorSize, bitmaps[group].block * super.blockSize(),
                                 maps.data(), length)) {
            return nullptr;
        }
    }
    const auto* const read = static_cast<const std::uint8_t*>(static_cast<const void*>(maps.data()));
    return read + (group - firstRead) * super.blockSize();
}

/// The blocks of a group from `startBlock` on.
EXTParserImpl::Stretch EXTParserImpl::stretchOf(std::uint64_t group, std::uint64_t startBlock) const {
    const std::uint64_t groupFirst = super.firstBlockOf(group);
    const std::uint64_t first = std::max(groupFirst, startBlock);
    const std::uint64_t end = std::min<std::uint64_t>(super.firstBlockOf(group + 1), super.blockCount);
    return {first, first - groupFirst, end - first};
}

/// How many groups, starting with `group`, have their bitmaps in adjacent blocks; at most as many as fit in
/// one read.
std::uint64_t EXTParserImpl::neighbours(const GroupBitmaps& bitmaps, std::uint64_t group) const {
    const std::uint64_t maxGroups =
        std::min<std::uint64_t>(bitmaps.size() - group, maxReadBytes / super.blockSize());
    std::uint64_t count = 1;
    while (count < maxGroups && !bitmaps[group + count].uninitialized &&
           isPlausible(bitmaps[group + count]) &&
           bitmaps[group + count].block == bitmaps[group].block + count) {
        ++count;
    }
    return count;
}

/// The blocks before the first group are in no bitmap. They count as used, because a boot loader may be
/// there.
void EXTParserImpl::markBootBlock(const UsedMap& used) const {
    if (used.startBlock < super.firstDataBlock && used.bits > 0) {
        setBits(used.buffer, 0, super.firstDataBlock - used.startBlock);
    }
}

/// If a group's bitmap was never written, the group uses only the blocks of its metadata. These include
/// backups of the superblock and of the descriptors, from which a damaged volume is repaired.
void EXTParserImpl::markStructures(const UsedMap& used, const Stretch& stretch, std::uint64_t group,
                                   const GroupBitmap& structures) const {
    const auto mark = [&used, &stretch](std::uint64_t block, std::uint64_t count) {
        const std::uint64_t begin = std::max(block, stretch.first);
        const std::uint64_t end = std::min(block + count, stretch.first + stretch.count);
        if (begin < end) {
            setBits(used.buffer, begin - used.startBlock, end - begin);
        }
    };
    mark(super.firstBlockOf(group), super.headBlocksOf(group));
    mark(structures.block, 1);
    mark(structures.inodeBitmap, 1);
    mark(structures.inodeTable, super.inodeTableBlocks());
}

std::int64_t EXTParserImpl::fail(const std::string& reason) {
    logger.log(info::level::error, info::reason("ext-bitmaps"), "%s", reason.c_str());
    return -1;
}

} // namespace agent::core::fs
