#include "core/fs/ntfs/NTFSBootSector.h"

#include "core/fs/ntfs/NTFSLayout.h"

#include <bit>

namespace agent::core::fs {

namespace {

namespace layout = ntfs_layout::boot_sector;
namespace file_record = ntfs_layout::file_record;

constexpr std::uint16_t minSectorSize = 256;
constexpr std::uint16_t maxSectorSize = 4096;
constexpr int maxLogRecordSize = 16; // 64 KiB, because offsets within a record have 16 bits
constexpr std::uint64_t maxRecordSize = std::uint64_t{1} << maxLogRecordSize;
constexpr std::uint64_t maxVolumeBytes = std::uint64_t{1} << 60U; // bytes; 8 times that fits in 64 bits

} // namespace

NTFSBootSector NTFSBootSector::decode(Bytes bytes) {
    const Bytes name = bytes.subspan(layout::oemId, layout::oemIdSize);
    NTFSBootSector boot;
    boot.oemId.assign(name.begin(), name.end());
    boot.bytesPerSector = littleEndian<std::uint16_t>(bytes, layout::bytesPerSector);
    boot.sectorsPerCluster = bytes[layout::sectorsPerCluster];
    boot.totalSectors = littleEndian<std::uint64_t>(bytes, layout::totalSectors);
    boot.mftLcn = littleEndian<std::uint64_t>(bytes, layout::mftLcn);
    boot.clustersPerMftRecord = littleEndian<std::int8_t>(bytes, layout::clustersPerMftRecord);
    return boot;
}

bool NTFSBootSector::isNTFS() const {
    return oemId == layout::oemIdValue;
}

/// Refuses a volume whose sector size differs from the device's, so that positions in the master file table
/// are the same with either size. A wrong position could yield another record, or the remains of an old one.
std::string NTFSBootSector::whyUnusable(std::uint32_t deviceSector) const {
    if (const char* reason = impossibleGeometry()) {
        return reason;
    }
    if (deviceSector != 0 && deviceSector != bytesPerSector) {
        return "NTFS: The volume has sectors of " + std::to_string(bytesPerSector) +
               " bytes and its device of " + std::to_string(deviceSector) + ".";
    }
    return "";
}

const char* NTFSBootSector::impossibleGeometry() const {
    if (!hasPossibleClusters()) {
        return "NTFS: Impossible cluster size.";
    }
    const std::uint64_t recordSize = mftRecordSize();
    if (!std::has_single_bit(recordSize) || recordSize < file_record::sector || recordSize > maxRecordSize) {
        return "NTFS: Impossible size of file records.";
    }
    if (totalSectors > maxVolumeBytes / bytesPerSector) {
        return "NTFS: Impossible number of sectors.";
    }
    return mftLcn == 0 || mftLcn >= clusterCount() ? "NTFS: The master file table is outside of the volume."
                                                   : nullptr;
}

bool NTFSBootSector::hasPossibleClusters() const {
    return std::has_single_bit(bytesPerSector) && bytesPerSector >= minSectorSize &&
           bytesPerSector <= maxSectorSize && std::has_single_bit(sectorsPerCluster);
}

std::uint64_t NTFSBootSector::clusterBytes() const {
    return std::uint64_t{bytesPerSector} * sectorsPerCluster;
}

std::uint64_t NTFSBootSector::clusterCount() const {
    return sectorsPerCluster == 0
               ? 0
               : totalSectors >> static_cast<unsigned>(std::countr_zero(sectorsPerCluster));
}

std::uint64_t NTFSBootSector::mftRecordSize() const {
    if (clustersPerMftRecord >= 0) {
        return clusterBytes() * static_cast<std::uint64_t>(clustersPerMftRecord);
    }
    return -clustersPerMftRecord > maxLogRecordSize
               ? 0
               : std::uint64_t{1} << static_cast<unsigned>(-clustersPerMftRecord);
}

} // namespace agent::core::fs
