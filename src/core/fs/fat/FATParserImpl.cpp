#include "core/fs/fat/FATParserImpl.h"

#include "core/fs/Bits.h"
#include "core/fs/FSUtil.h"
#include "core/fs/fat/FATLayout.h"
#include "core/fs/fat/FATWindow.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace agent::core::fs {

namespace {

namespace layout = fat_layout::boot_sector;
namespace entry = fat_layout::entry;

constexpr std::uint64_t byteBits = 8;

bool hasText(Bytes bytes, std::size_t offset, std::string_view text) {
    return std::ranges::equal(bytes.subspan(offset, text.size()), text);
}

} // namespace

FATParserImpl::FATParserImpl(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : logger(logger), reader(reader), sectorSize(sectorSize) {}

bool FATParserImpl::recognize() {
    std::array<std::uint8_t, layout::size> sector{};
    if (!FSUtil::readExactly(logger, reader, sectorSize, 0, sector.data(), sector.size())) {
        info::LogEntry(logger, info::level::error) << "Can't read fat boot sector";
        return false;
    }
    if (hasText(sector, layout::narrowType, layout::fat12)) {
        info::LogEntry(logger, info::level::error, info::reason("file-system-unsupported"))
            << "FAT12 is not supported";
        return false;
    }
    if (hasText(sector, layout::narrowType, layout::fat16)) {
        info::LogEntry(logger, info::level::error, info::reason("file-system-unsupported"))
            << "FAT16 is not supported";
        return false;
    }
    if (!hasText(sector, layout::type, layout::fat32)) {
        return false;
    }
    boot = FATBootSector::decode(sector);
    return true;
}

/// 0 if the boot sector's cluster size is impossible; then there is no map, either.
std::uint32_t FATParserImpl::getBlockSize() const {
    return boot.hasPossibleClusters() ? boot.clusterBytes() : 0;
}

std::int64_t FATParserImpl::getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                           std::size_t bufferBytes) {
    if (const char* const reason = boot.whyUnusable()) {
        return fail(reason);
    }
    clearMap(buffer, bufferBytes);
    const std::uint64_t left = boot.blockCount() - std::min(startBlock, boot.blockCount());
    const std::uint64_t count = std::min<std::uint64_t>(bufferBytes * byteBits, left);
    if (const std::int64_t result = markUsed({buffer, startBlock, startBlock + count}); result != 0) {
        logger.log(info::level::debug, "returning[2] %d", static_cast<int>(result));
        return result;
    }
    logger.log(info::level::debug, "returning[3] %li", static_cast<std::int64_t>(count));
    return static_cast<std::int64_t>(count);
}

/// Returns 0 or a negative error, like the functions below.
std::int64_t FATParserImpl::markUsed(const Stretch& blocks) {
    if (blocks.begin == blocks.end) {
        return 0;
    }
    const std::uint64_t firstBlock = std::clamp(boot.firstDataBlock(), blocks.begin, blocks.end);
    setBits(blocks.buffer, 0, firstBlock - blocks.begin);
    FATWindow fat(logger, reader, sectorSize, boot.fatOffset());
    const std::int64_t result = fat.read(0, 1);
    if (result < 0) {
        return result;
    }
    if ((fat.front() & entry::medium) != entry::medium) {
        return fail("The FAT doesn't begin as one does, so the boot sector may be a left-over");
    }
    return markClusters(fat, blocks, firstBlock);
}

/// Marks the data blocks from `firstBlock` on, one window of the FAT at a time. Each window has at least two
/// entries, which is enough for one block.
std::int64_t FATParserImpl::markClusters(FATWindow& fat, const Stretch& blocks, std::uint64_t firstBlock) {
    const std::uint64_t more = boot.isAligned() ? 0 : 1; // how many more entries than blocks are needed
    for (std::uint64_t block = firstBlock; block < blocks.end;) {
        const std::uint64_t index = block - boot.firstDataBlock() + entry::reserved;
        const std::int64_t entries = fat.read(index, blocks.end - block + more);
        if (entries < 0) {
            return entries;
        }
        const std::uint64_t count = static_cast<std::uint64_t>(entries) - more;
        fat.copyUsedBits(blocks.buffer, block - blocks.begin, count, !boot.isAligned());
        block += count;
    }
    return 0;
}

std::int64_t FATParserImpl::fail(const char* reason) {
    info::LogEntry(logger, info::level::error, info::reason("fat-table")) << reason;
    return -1;
}

} // namespace agent::core::fs
