#pragma once

#include "core/fs/FileSystemKind.h"
#include "core/fs/ext/EXTParser.h"

namespace agent::core::fs {

inline constexpr FileSystemKind extKind{
    .name = "ext",
    .volumes = "ext2, ext3, ext4",
    .announcement = "Creating EXT Parser.",
    .makeParser = &makeParser<EXTParser>,
};

} // namespace agent::core::fs
