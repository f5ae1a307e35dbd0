#pragma once

#include "core/fs/FileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// The used blocks of HFS+, whose header has to be at the volume's first byte.
/// The map is that of the disk, so the volume must be a frozen or a clean one: while a journal may have to be
/// replayed at a mount, there is no map.
/// Owns:    what it has read of the header; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   a negative result, after a line in the log; the caller then takes every block as used.
class HFSParser : public FileSystemParser {
public:
    HFSParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);
};

} // namespace agent::core::fs
