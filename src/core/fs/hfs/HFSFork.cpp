#include "core/fs/hfs/HFSFork.h"

#include <numeric>

namespace agent::core::fs {

namespace {

namespace fork = hfs_layout::fork;
namespace extent = hfs_layout::extent;

} // namespace

HFSExtentRecord decodeHFSExtents(Bytes bytes) {
    HFSExtentRecord extents;
    std::size_t offset = 0;
    for (HFSExtent& each : extents) {
        each.startBlock = bigEndian<std::uint32_t>(bytes, offset + extent::startBlock);
        each.blockCount = bigEndian<std::uint32_t>(bytes, offset + extent::blockCount);
        offset += extent::size;
    }
    return extents;
}

std::uint64_t countHFSBlocks(std::span<const HFSExtent> extents) {
    return std::accumulate(
        extents.begin(), extents.end(), std::uint64_t{0},
        [](std::uint64_t sum, const HFSExtent& extent) { return sum + extent.blockCount; });
}

HFSFork HFSFork::decode(Bytes bytes) {
    return {bigEndian<std::uint64_t>(bytes, fork::logicalSize),
            bigEndian<std::uint32_t>(bytes, fork::totalBlocks),
            decodeHFSExtents(bytes.subspan(fork::extents))};
}

} // namespace agent::core::fs
