#include "core/fs/ntfs/NTFSParserImpl.h"

#include "core/fs/Bits.h"
#include "core/fs/FSUtil.h"
#include "core/fs/ntfs/NTFSError.h"
#include "core/fs/ntfs/NTFSFileFinder.h"
#include "core/fs/ntfs/NTFSLayout.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <stdexcept>
#include <string>

namespace agent::core::fs {

namespace {

namespace layout = ntfs_layout::boot_sector;

constexpr std::uint64_t byteBits = 8;
constexpr std::uint64_t maxReadBytes = 4UL * 1024 * 1024; // limits the temporary buffer of unaligned reads

std::uint64_t clustersOf(const std::vector<NTFSRun>& runs) {
    return std::accumulate(
        runs.begin(), runs.end(), std::uint64_t{0},
        [](std::uint64_t sum, const NTFSRun& run) { return sum + static_cast<std::uint64_t>(run.length); });
}

} // namespace

NTFSParserImpl::NTFSParserImpl(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : logger(logger), reader(reader), sectorSize(sectorSize) {}

bool NTFSParserImpl::recognize() {
    boot = {};
    files.reset();
    std::array<std::uint8_t, layout::size> sector{};
    if (!FSUtil::readExactly(logger, reader, sectorSize, 0, sector.data(), sector.size())) {
        info::LogEntry(logger, info::level::error) << "Can't read ntfs boot sector";
        return false;
    }
    const NTFSBootSector found = NTFSBootSector::decode(sector);
    if (!found.isNTFS()) {
        return false;
    }
    boot = found;
    if (boot.whyUnusable(sectorSize).empty()) {
        files.emplace(logger, reader, sectorSize, boot);
    }
    return true;
}

/// 0 if the boot sector's cluster size is impossible; then there is no map, either.
std::uint32_t NTFSParserImpl::getBlockSize() const {
    return boot.hasPossibleClusters() ? static_cast<std::uint32_t>(boot.clusterBytes()) : 0;
}

std::int64_t NTFSParserImpl::getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                            std::size_t bufferBytes) {
    if (const std::optional<std::int64_t> result = resultWithoutBitmap(startBlock)) {
        return *result;
    }
    try {
        return readBitmap({buffer, bufferBytes, startBlock});
    } catch (const NTFSError& error) {
        logger.log(info::level::error, info::reason("ntfs-bitmap"), "%s", error.reason.c_str());
        return ntfs_error::refused;
    }
}

NTFSDataRuns NTFSParserImpl::findFileRuns(const std::string& path) {
    if (!files) {
        throw std::runtime_error(boot.whyUnusable(sectorSize));
    }
    try {
        return NTFSFileFinder({logger, reader, sectorSize, boot.clusterBytes(), *files}).findRuns(path);
    } catch (const NTFSError& error) {
        throw std::runtime_error(error.reason);
    }
}

/// The result if it is known without the bitmap; nullopt if the bitmap must be read.
std::optional<std::int64_t> NTFSParserImpl::resultWithoutBitmap(std::uint64_t startBlock) {
    info::LogEntry line(logger, info::level::debug);
    if (boot.sectorsPerCluster == 0) {
        line << "Invalid parameter. Did you call fs_has_identifier before?";
        return ntfs_error::noSectorsPerCluster;
    }
    const std::uint64_t clusterCount = boot.clusterCount();
    if (const std::uint64_t other = boot.totalSectors / boot.sectorsPerCluster; other != clusterCount) {
        line << "Sanity check failed. ClusterCount: " << clusterCount << " Alt ClusterCount: " << other;
        return ntfs_error::clusterCountsDiffer;
    }
    if (startBlock >= clusterCount) {
        line << "LCN: " << startBlock << " Total blocks: " << clusterCount
             << ". Nothing more to read in bitmap.";
        return 0;
    }
    if (startBlock % byteBits != 0) {
        line << "LCN " << startBlock << " is not a multiple of 8.";
        return ntfs_error::startWithinByte;
    }
    return std::nullopt;
}

/// Reads the bitmap, after checking that it is plain, large enough and completely written. Everything past
/// the last cluster becomes used, and clusters that must be used are checked.
std::int64_t NTFSParserImpl::readBitmap(const UsedMap& used) {
    if (!files) {
        throw NTFSError{boot.whyUnusable(sectorSize)};
    }
    const NTFSDataRuns bitmap = files->getDataRuns(ntfs_layout::bitmapRecord);
    if (bitmap.whyNotPlain != nullptr) {
        throw NTFSError{bitmap.whyNotPlain};
    }
    const std::uint64_t clusterCount = boot.clusterCount();
    const std::uint64_t bitmapBits = clustersOf(bitmap.runs) * boot.clusterBytes() * byteBits;
    if (bitmapBits < clusterCount) {
        info::LogEntry(logger, info::level::debug)
            << "Sanity check failed on total bytes from BootRecord: " << clusterCount
            << " vs total bytes from Bitmap: " << bitmapBits;
        return ntfs_error::bitmapTooSmall;
    }
    if (bitmap.writtenBytes < (clusterCount + byteBits - 1) / byteBits) {
        throw NTFSError{"NTFS: The bitmap has not been written as far as the volume goes."};
    }
    const std::uint64_t filled = readRuns(bitmap.runs, used);
    markPastEndUsed(used, filled);
    requireOwnClustersUsed(bitmap.runs, used, filled);
    return static_cast<std::int64_t>(filled * byteBits);
}

/// Returns how many bytes of the buffer are filled. A start in the second or a later run is refused, because
/// all of `skipBytes` is subtracted from the first run that is read, although some of these bytes belong to
/// the earlier runs.
std::uint64_t NTFSParserImpl::readRuns(const std::vector<NTFSRun>& runs, const UsedMap& used) {
    clearMap(used.buffer, used.bytes);
    const std::uint64_t skipBytes = used.startBlock / byteBits;
    std::uint64_t passed = 0;
    std::uint64_t filled = 0;
    bool first = true;
    for (const NTFSRun& run : runs) {
        std::uint64_t runBytes = static_cast<std::uint64_t>(run.length) * boot.clusterBytes();
        passed += runBytes;
        if (passed * byteBits < used.startBlock) {
            continue;
        }
        std::uint64_t diskOffset = static_cast<std::uint64_t>(run.lcn) * boot.clusterBytes();
        if (first) {
            if (passed != runBytes) {
                throw NTFSError{"NTFS: The bitmap is in pieces, and can't be read on from cluster " +
                                std::to_string(used.startBlock) + "; the rest is copied whole."};
            }
            diskOffset += skipBytes;
            runBytes -= skipBytes;
        }
        const std::uint64_t count = std::min(runBytes, used.bytes - filled);
        readRun(diskOffset, used.buffer + filled, count);
        filled += count;
        if (filled == used.bytes) {
            break;
        }
        first = false;
    }
    return filled;
}

void NTFSParserImpl::readRun(std::uint64_t offset, std::uint8_t* target, std::uint64_t bytes) {
    for (std::uint64_t done = 0; done < bytes; done += maxReadBytes) {
        const std::uint64_t part = std::min(bytes - done, maxReadBytes);
        if (!FSUtil::readExactly(logger, reader, sectorSize, offset + done, target + done, part)) {
            throw NTFSError{"NTFS: Can't read the bitmap."};
        }
    }
}

/// The backup of the boot sector is past the last cluster of the bitmap, so the bits there are set.
void NTFSParserImpl::markPastEndUsed(const UsedMap& used, std::uint64_t filled) const {
    const std::uint64_t counted = boot.clusterCount() - used.startBlock;
    if (filled * byteBits > counted) {
        setBits(used.buffer, counted, filled * byteBits - counted);
    }
}

/// The clusters of the structures that led to the bitmap must be used. If the bitmap marks one of them as
/// free, it is outdated or no bitmap: a disk that has lost its content reads as zeros, and all clusters would
/// be free.
void NTFSParserImpl::requireOwnClustersUsed(const std::vector<NTFSRun>& runs, const UsedMap& used,
                                            std::uint64_t filled) const {
    const auto require = [&used, filled](std::uint64_t cluster) {
        const std::uint64_t bit = cluster - used.startBlock; // wraps to a large number before startBlock
        if (bit < filled * byteBits && (used.buffer[bit / byteBits] >> bit % byteBits & 1U) == 0) {
            throw NTFSError{"NTFS: The bitmap takes cluster " + std::to_string(cluster) +
                            " as free, which has structures of the file system."};
        }
    };
    require(0);
    require(boot.mftLcn);
    for (const NTFSRun& run : runs) {
        require(static_cast<std::uint64_t>(run.lcn));
    }
}

} // namespace agent::core::fs
