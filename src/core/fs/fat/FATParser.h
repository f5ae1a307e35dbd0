#pragma once

#include "core/fs/FileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// Reads which blocks of FAT32 are used. A block has the size of a cluster, but the first block begins at the
/// volume's first byte.
/// The map comes from the disk, so the volume must be frozen or clean. There is no journal.
/// Owns:    what it has read of the boot sector; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   by a negative result, after a log line; the caller then treats every block as used.
class FATParser : public FileSystemParser {
public:
    FATParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);
};

} // namespace agent::core::fs
