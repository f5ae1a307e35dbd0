#pragma once

#include "core/fs/FileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// Reads which clusters of NTFS are used.
/// The map comes from the disk, so the volume must be frozen or clean: a log that a mount would replay is
/// ignored.
/// Owns:    what it has read of the boot sector and the master file table; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   by a negative result, after a log line; the caller then treats every cluster as used.
///          std::runtime_error if a file's run list is broken.
class NTFSParser : public FileSystemParser {
public:
    NTFSParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);
};

} // namespace agent::core::fs
