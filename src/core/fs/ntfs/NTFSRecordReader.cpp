#include "core/fs/ntfs/NTFSRecordReader.h"

#include "core/fs/FSUtil.h"
#include "core/fs/ntfs/NTFSError.h"
#include "core/fs/ntfs/NTFSLayout.h"

#include <cstddef>

namespace agent::core::fs {

NTFSRecordReader::NTFSRecordReader(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : logger(logger), reader(reader), sectorSize(sectorSize) {}

std::int64_t NTFSRecordReader::readMftRecord(std::uint64_t inode, std::uint64_t byteOffset,
                                             NTFSRecord& buffer) {
    info::LogEntry(logger, info::level::debug)
        << "Reading $MFT for inode " << inode << " at offset " << byteOffset;
    std::size_t bytesRead = 0;
    if (FSUtil::readChunk(logger, reader, sectorSize, byteOffset, buffer.bytes.data(), buffer.bytes.size(),
                          bytesRead) != 0) {
        return ntfs_error::recordUnreadable;
    }
    if (bytesRead < buffer.bytes.size()) {
        return ntfs_error::recordCutShort;
    }
    if (!buffer.hasMagic(ntfs_layout::file_record::magicValue)) {
        info::LogEntry(logger, info::level::debug) << "MFT record " << inode << " is invalid.";
        return ntfs_error::recordWithoutMagic;
    }
    if (!buffer.applyFixups()) {
        return ntfs_error::recordTorn;
    }
    return buffer.mayHaveNumber(inode) ? 0 : ntfs_error::recordOfAnother;
}

} // namespace agent::core::fs
