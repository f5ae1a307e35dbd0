#pragma once

#include "core/fs/FileSystemKind.h"
#include "core/fs/fat/FATParser.h"

namespace agent::core::fs {

inline constexpr FileSystemKind fatKind{
    .name = "fat",
    .volumes = "FAT32",
    .announcement = "Creating FAT Parser.",
    .makeParser = &makeParser<FATParser>,
};

} // namespace agent::core::fs
