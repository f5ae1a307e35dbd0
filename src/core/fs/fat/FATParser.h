#pragma once

#include "core/fs/FileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// The used blocks of FAT32. A block is as large as a cluster, but the first one begins with the volume.
/// The map is that of the disk, so the volume must be a frozen or a clean one. There is no journal.
/// Owns:    what it has read of the boot sector; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   a negative result, after a line in the log; the caller then takes every block as used.
class FATParser : public FileSystemParser {
public:
    FATParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);
};

} // namespace agent::core::fs
