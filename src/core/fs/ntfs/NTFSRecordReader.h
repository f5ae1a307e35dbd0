#pragma once

#include "core/fs/IVolumeReader.h"
#include "core/fs/ntfs/NTFSRecord.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// Reads and checks records of the master file table.
/// Owns:    nothing; logger and reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   by a number of ntfs_error.
class NTFSRecordReader {
public:
    NTFSRecordReader(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);

    /// Reads the record `inode` at `byteOffset` into `buffer`, which has a record's size. Returns 0, or a
    /// number of ntfs_error that says why this isn't that record.
    std::int64_t readMftRecord(std::uint64_t inode, std::uint64_t byteOffset, NTFSRecord& buffer);

private:
    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize;
};

} // namespace agent::core::fs
