#pragma once

#include "core/fs/FileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// Reads which blocks of ext2, ext3 and ext4 are used.
/// The map comes from the disk, so the volume must be frozen or clean. If a mount would have to replay the
/// journal, there is no map.
/// Owns:    what it has read of the superblock; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   by a negative result, after a log line; the caller then treats every block as used.
class EXTParser : public FileSystemParser {
public:
    EXTParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);
};

} // namespace agent::core::fs
