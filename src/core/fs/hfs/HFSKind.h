#pragma once

#include "core/fs/FileSystemKind.h"
#include "core/fs/hfs/HFSParser.h"

namespace agent::core::fs {

inline constexpr FileSystemKind hfsKind{
    .name = "hfs",
    .volumes = "HFS+ and HFSX with a header at byte 0",
    .announcement = "Creating HFS Parser.",
    .makeParser = &makeParser<HFSParser>,
};

} // namespace agent::core::fs
