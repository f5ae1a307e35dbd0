#pragma once

#include "core/fs/FileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// The used clusters of NTFS.
/// The map is that of the disk, so the volume must be a frozen or a clean one: what a mount would still
/// replay of the log is not looked at.
/// Owns:    what it has read of the boot sector and the master file table; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   a negative result, after a line in the log; the caller then takes every cluster as used.
///          std::runtime_error where the list of a file's clusters is broken.
class NTFSParser : public FileSystemParser {
public:
    NTFSParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);
};

} // namespace agent::core::fs
