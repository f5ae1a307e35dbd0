#pragma once

#include "core/fs/FileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// Reads which blocks of XFS are used. The map comes from the disk. A log that a mount would replay is
/// ignored, and the superblock doesn't mention it, so the volume must be frozen or clean.
/// Owns:    what it has read of the superblock; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   by a negative result, after a log line; the caller then treats every block as used.
class XFSParser : public FileSystemParser {
public:
    XFSParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);
};

} // namespace agent::core::fs
