#pragma once

#include "core/fs/FileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// The used blocks of XFS. The map is that of the disk: a log that would still be replayed at a mount is not
/// looked at, and nothing in the super block tells of it, so the volume must be a frozen or a clean one.
/// Owns:    what it has read of the super block; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   a negative result, after a line in the log; the caller then takes every block as used.
class XFSParser : public FileSystemParser {
public:
    XFSParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);
};

} // namespace agent::core::fs
