#pragma once

#include "core/fs/IVolumeReader.h"
#include "core/fs/ntfs/NTFSRecord.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// Reads and checks records of the master file table.
/// Owns:    nothing.
/// Threads: one at a time; moves the reader's position.
/// Fails:   by a number of ntfs_error.
class NTFSRecordReader {
public:
    NTFSRecordReader(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);

    /// Fills a record of the right size from the volume. Returns 0, or why it isn't that of this number.
    std::int64_t readMftRecord(std::uint64_t inode, std::uint64_t byteOffset, NTFSRecord& buffer);

private:
    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize;
};

} // namespace agent::core::fs
