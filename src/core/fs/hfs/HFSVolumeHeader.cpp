#include "core/fs/hfs/HFSVolumeHeader.h"

#include <algorithm>
#include <bit>
#include <vector>

namespace agent::core::fs {

namespace {

namespace layout = hfs_layout::volume_header;

constexpr std::uint64_t byteBits = 8;
constexpr std::uint32_t minBlockSize = 512;
constexpr std::uint32_t maxBlockSize =
    1024U * 1024U; // the size of one read, because each read is of whole blocks

bool overlap(std::vector<HFSExtent> extents) {
    std::ranges::sort(extents, {}, &HFSExtent::startBlock);
    return std::ranges::adjacent_find(extents, [](const HFSExtent& left, const HFSExtent& right) {
               return left.endBlock() > right.startBlock;
           }) != extents.end();
}

} // namespace

HFSVolumeHeader HFSVolumeHeader::decode(Bytes bytes) {
    HFSVolumeHeader header;
    header.signature = bigEndian<std::uint16_t>(bytes, layout::signature);
    header.version = bigEndian<std::uint16_t>(bytes, layout::version);
    header.attributes = bigEndian<std::uint32_t>(bytes, layout::attributes);
    header.blockSize = bigEndian<std::uint32_t>(bytes, layout::blockSize);
    header.totalBlocks = bigEndian<std::uint32_t>(bytes, layout::totalBlocks);
    header.allocation = HFSFork::decode(bytes.subspan(layout::allocationFork));
    header.extents = HFSFork::decode(bytes.subspan(layout::extentsFork));
    return header;
}

bool HFSVolumeHeader::hasSignature() const {
    return signature == layout::plusValue || signature == layout::extendedValue;
}

bool HFSVolumeHeader::hasPossibleBlockSize() const {
    return std::has_single_bit(blockSize) && blockSize >= minBlockSize && blockSize <= maxBlockSize;
}

bool HFSVolumeHeader::hasKnownVersion() const {
    return version == layout::versionPlus || version == layout::versionExtended;
}

/// A volume that is refused here is copied completely. A map that is read wrongly would leave out used
/// blocks.
const char* HFSVolumeHeader::whyUnusable() const {
    if (!hasKnownVersion()) {
        return "The version of HFS+ is unknown";
    }
    if (!hasPossibleBlockSize()) {
        return "The HFS+ block size is impossible";
    }
    if ((attributes & layout::attributeInconsistent) != 0) {
        return "The HFS+ volume needs repair";
    }
    if ((attributes & layout::attributeJournaled) != 0 && (attributes & layout::attributeUnmounted) == 0) {
        return "The HFS+ journal may have to be replayed, so the bitmap may be out of date";
    }
    return nullptr;
}

const char* HFSVolumeHeader::whyUnusable(std::span<const HFSExtent> extents) const {
    // The first block contains the header.
    const auto isImpossible = [this](const HFSExtent& extent) {
        return !extent.isEmpty() &&
               (extent.startBlock == 0 || extent.blockCount == 0 || extent.endBlock() > totalBlocks);
    };
    if (std::ranges::any_of(extents, isImpossible)) {
        return "An HFS+ extent is impossible";
    }
    return overlap({extents.begin(), extents.end()}) ? "HFS+ extents of one file overlap" : nullptr;
}

bool HFSVolumeHeader::hasSameLayout(const HFSVolumeHeader& other) const {
    return blockSize == other.blockSize && totalBlocks == other.totalBlocks &&
           allocation == other.allocation && extents == other.extents;
}

std::uint64_t HFSVolumeHeader::bitmapBytes() const {
    return totalBlocks / byteBits + (totalBlocks % byteBits == 0 ? 0 : 1);
}

} // namespace agent::core::fs
