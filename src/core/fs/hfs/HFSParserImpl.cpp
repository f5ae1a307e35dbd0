#include "core/fs/hfs/HFSParserImpl.h"

#include "core/fs/FSUtil.h"
#include "core/fs/hfs/HFSExtentsTree.h"
#include "core/fs/hfs/HFSLayout.h"

#include <algorithm>
#include <array>

namespace agent::core::fs {

namespace {

namespace layout = hfs_layout::volume_header;

constexpr std::uint64_t byteBits = 8;
constexpr std::uint64_t maxReadBytes = 1024UL * 1024; // bytes of the bitmap
constexpr std::uint32_t pageSize = 4096;              // the alignment if the device's sector size isn't known

/// Whether all bits from `first` to before `end` are set. Bit 0 of a byte is its most significant bit.
bool areSet(const std::uint8_t* map, std::uint64_t first, std::uint64_t end) {
    for (std::uint64_t bit = first; bit < end;) {
        const std::uint64_t within = bit % byteBits;
        const std::uint64_t count = std::min(byteBits - within, end - bit);
        const unsigned mask = (0xFFU >> within) & ~(0xFFU >> (within + count));
        if ((map[bit / byteBits] & mask) != mask) {
            return false;
        }
        bit += count;
    }
    return true;
}

} // namespace

HFSParserImpl::HFSParserImpl(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : logger(logger), reader(reader), sectorSize(sectorSize) {}

bool HFSParserImpl::recognize() {
    if (!readHeader(layout::position, header)) {
        info::LogEntry(logger, info::level::error) << "Error reading HFS+ superblock.";
        return false;
    }
    return header.hasSignature();
}

/// 0 if the header's block size is impossible; then there is no map, either.
std::uint32_t HFSParserImpl::getBlockSize() const {
    return header.hasPossibleBlockSize() ? header.blockSize : 0;
}

std::int64_t HFSParserImpl::getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                           std::size_t bufferBytes) {
    if (header.totalBlocks <= startBlock) {
        return 0;
    }
    if (startBlock % byteBits != 0) {
        return fail("startBlock must be divisible by 8");
    }
    std::vector<HFSExtent> extents;
    if (!isHeaderTrustworthy() || !findExtents(extents)) {
        return -1;
    }
    // An empty extent ends the list. A list without an empty extent counts as empty.
    const auto end = std::ranges::find_if(extents, &HFSExtent::isEmpty);
    if (end == extents.end() || end == extents.begin()) {
        return 0;
    }
    extents.erase(end, extents.end());
    if (const char* const reason = whyUnusable(extents)) {
        return fail(reason);
    }
    return copyMap(extents, {buffer, bufferBytes, startBlock});
}

/// File systems keep their header at byte 1024, so a header at byte 0 is a copy, which may be outdated. It is
/// only trusted while both headers agree.
bool HFSParserImpl::isHeaderTrustworthy() {
    HFSVolumeHeader usual;
    const char* reason = header.whyUnusable();
    if (reason == nullptr && !readHeader(layout::usualPosition, usual)) {
        reason = "The usual place of the HFS+ header can't be read";
    }
    if (reason == nullptr && usual.hasSignature()) {
        reason = usual.hasSameLayout(header) ? usual.whyUnusable() : "The HFS+ headers differ";
    }
    if (reason != nullptr) {
        logger.log(info::level::error, info::reason("hfs-bitmap"), "%s", reason);
    }
    return reason == nullptr;
}

/// Lists the bitmap's extents in order: first those of its fork, then those of the extents B-tree.
bool HFSParserImpl::findExtents(std::vector<HFSExtent>& extents) {
    const HFSFork& fork = header.allocation;
    extents.assign(fork.extents.begin(), fork.extents.end());
    if (!fork.overflows()) {
        return true;
    }
    info::LogEntry(logger, info::level::debug) << "Bitmap extents overflow file needed.";
    HFSExtentsTree tree(logger, reader, sectorSize);
    if (!tree.readOverflowExtents(header, hfs_layout::record::allocationFile, extents)) {
        info::LogEntry(logger, info::level::error, info::reason("hfs-bitmap"))
            << "Couldn't parse extent overflow file for bitmap extents.";
        return false;
    }
    return true;
}

/// Why the extents can't be the whole bitmap; null if they can.
const char* HFSParserImpl::whyUnusable(Extents extents) const {
    const HFSFork& fork = header.allocation;
    const std::uint64_t blocks = countHFSBlocks(extents);
    if (blocks != fork.totalBlocks) {
        return "The extents of the HFS+ bitmap aren't as many blocks as it has";
    }
    if (fork.logicalSize < header.bitmapBytes() || blocks * header.blockSize < header.bitmapBytes()) {
        return "The HFS+ bitmap is too small for the volume";
    }
    return header.whyUnusable(extents);
}

std::int64_t HFSParserImpl::copyMap(Extents extents, const UsedMap& used) {
    std::uint64_t position = used.startBlock / byteBits; // in the bitmap
    std::uint64_t begin = 0;                             // the extent's position in the bitmap
    std::uint64_t done = 0;
    for (const HFSExtent& extent : extents) {
        const std::uint64_t end = begin + std::uint64_t{extent.blockCount} * header.blockSize;
        if (position < end) {
            const std::uint64_t length =
                std::min({end - position, used.bytes - done, header.bitmapBytes() - done});
            const std::uint64_t diskOffset =
                std::uint64_t{extent.startBlock} * header.blockSize + position - begin;
            if (!read(diskOffset, used.buffer + done, length)) {
                return fail("Error in HFS+ parsing read.");
            }
            done += length;
            position = end;
        }
        begin = end;
    }
    const std::uint64_t blocks = std::min(done * byteBits, header.totalBlocks - used.startBlock);
    return marksOwnBlocksUsed(extents, used, blocks) ? static_cast<std::int64_t>(blocks)
                                                     : fail("The HFS+ bitmap has its own blocks as free");
}

/// Reads in pieces, which limits the memory for the temporary buffer.
bool HFSParserImpl::read(std::uint64_t diskOffset, std::uint8_t* buffer, std::uint64_t length) {
    const std::uint32_t alignment = std::max(header.blockSize, sectorSize == 0 ? pageSize : sectorSize);
    for (std::uint64_t done = 0; done < length; done += maxReadBytes) {
        const std::uint64_t piece = std::min(length - done, maxReadBytes);
        if (!FSUtil::readExactly(logger, reader, alignment, diskOffset + done, buffer + done, piece)) {
            return false;
        }
    }
    return true;
}

/// Whether the map marks as used all blocks of the header, of the bitmap itself and of the extents B-tree
/// that it covers. If not, the data isn't a bitmap.
bool HFSParserImpl::marksOwnBlocksUsed(Extents extents, const UsedMap& used, std::uint64_t blocks) const {
    const auto isUsed = [&](const HFSExtent& extent) {
        const std::uint64_t first = std::max<std::uint64_t>(extent.startBlock, used.startBlock);
        const std::uint64_t end = std::min(extent.endBlock(), used.startBlock + blocks);
        return first >= end || areSet(used.buffer, first - used.startBlock, end - used.startBlock);
    };
    return isUsed({0, 1}) && std::ranges::all_of(extents, isUsed) &&
           std::ranges::all_of(header.extents.extents, isUsed);
}

bool HFSParserImpl::readHeader(std::uint64_t position, HFSVolumeHeader& read) {
    std::array<std::uint8_t, layout::size> bytes{};
    if (!FSUtil::readExactly(logger, reader, sectorSize, position, bytes.data(), bytes.size())) {
        return false;
    }
    read = HFSVolumeHeader::decode(bytes);
    return true;
}

std::int64_t HFSParserImpl::fail(const char* reason) {
    logger.log(info::level::error, info::reason("hfs-bitmap"), "%s", reason);
    return -1;
}

} // namespace agent::core::fs
