#include "FreeLists.h"

#include "core/fs/ByteOrder.h"
#include "core/fs/xfs/XFSLayout.h"
#include "os/AlignedBuffer.h"

#include <algorithm>
#include <cstdio>

namespace audit {

namespace {

namespace layout = agent::core::fs::xfs_layout;
using agent::core::fs::bigEndian;

constexpr std::uint64_t largestSector = 32768;
constexpr std::size_t alignment = 4096;

/// Returns an empty vector if the bytes can't be read.
std::vector<std::uint8_t> readAt(agent::core::IVolumeReader& reader, std::uint64_t offset,
                                 std::uint64_t bytes) {
    // Direct I/O needs offsets and lengths of whole pages.
    const std::uint64_t begin = offset / alignment * alignment;
    const std::uint64_t length = (offset + bytes - begin + alignment - 1) / alignment * alignment;
    os::AlignedBuffer buffer(length, alignment);
    if (reader.seek(static_cast<std::int64_t>(begin), SEEK_SET) != static_cast<std::int64_t>(begin) ||
        reader.read(buffer.data(), length) < static_cast<std::int64_t>(offset + bytes - begin)) {
        return {};
    }
    const auto* const first = static_cast<const std::uint8_t*>(static_cast<const void*>(buffer.data()));
    return {first + (offset - begin), first + (offset - begin + bytes)};
}

} // namespace

FreeLists::FreeLists(agent::core::IVolumeReader& reader) : reader(reader) {
    namespace super = layout::super_block;
    const std::vector<std::uint8_t> block = readAt(reader, 0, super::size);
    if (block.empty() || bigEndian<std::uint32_t>(block, super::magic) != super::magicValue) {
        return;
    }
    groupBlocks = bigEndian<std::uint32_t>(block, super::agBlocks);
    sectorSize = bigEndian<std::uint16_t>(block, super::sectorSize);
    hasCrcHeader =
        (bigEndian<std::uint16_t>(block, super::version) & super::versionMask) == super::versionCrc;
    const bool isSound = groupBlocks > 0 && sectorSize >= layout::agf::size && sectorSize <= largestSector;
    blockSize = isSound ? bigEndian<std::uint32_t>(block, super::blockSize) : 0;
}

bool FreeLists::hasBlockAt(std::uint64_t offset) {
    if (blockSize == 0) {
        return false;
    }
    const std::uint64_t block = offset / blockSize;
    const auto group = static_cast<std::uint32_t>(block / groupBlocks);
    if (cachedGroup != group) {
        list = read(group);
        cachedGroup = group;
    }
    return std::ranges::find(list, block % groupBlocks) != list.end();
}

/// The free list on disk is a ring buffer.
std::vector<std::uint32_t> FreeLists::read(std::uint32_t group) {
    namespace agf = layout::agf;
    namespace agfl = layout::agfl;
    const std::uint64_t begin = group * groupBlocks * blockSize;
    const std::vector<std::uint8_t> info = readAt(reader, begin + agf::sector * sectorSize, agf::size);
    const std::vector<std::uint8_t> ring = readAt(reader, begin + agfl::sector * sectorSize, sectorSize);
    if (info.empty() || ring.empty() || bigEndian<std::uint32_t>(info, agf::magic) != agf::magicValue) {
        return {};
    }
    const std::size_t before = hasCrcHeader ? agfl::crcHeader : 0;
    const std::size_t entries = (sectorSize - before) / sizeof(std::uint32_t);
    const std::size_t first = bigEndian<std::uint32_t>(info, agf::flFirst);
    const std::size_t count = std::min<std::size_t>(bigEndian<std::uint32_t>(info, agf::flCount), entries);
    std::vector<std::uint32_t> blocks;
    blocks.reserve(count);
    for (std::size_t index = 0; index < count; ++index) {
        blocks.push_back(
            bigEndian<std::uint32_t>(ring, before + (first + index) % entries * sizeof(std::uint32_t)));
    }
    return blocks;
}

} // namespace audit
