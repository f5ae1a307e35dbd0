#pragma once

#include "core/fs/FileSystemKind.h"
#include "core/fs/hfs/HFSMisplacedHeader.h"
#include "core/fs/hfs/HFSParser.h"

#include <string>

namespace agent::core::fs {

inline std::string findMisplacedHFSHeader(info::Logger& logger, IVolumeReader& reader,
                                          std::uint32_t sectorSize) {
    return hasHeaderAtItsUsualPlace(logger, reader, sectorSize)
               ? "its HFS+ header is at byte 1024, and HFS+ is known by one at byte 0 only"
               : "";
}

inline constexpr FileSystemKind hfsKind{
    .name = "hfs",
    .volumes = "HFS+ and HFSX with a header at byte 0",
    .announcement = "Creating HFS Parser.",
    .makeParser = &makeParser<HFSParser>,
    .findNearMiss = &findMisplacedHFSHeader,
};

} // namespace agent::core::fs
