#pragma once

#include "core/fs/FileSystemKind.h"
#include "core/fs/xfs/XFSParser.h"

namespace agent::core::fs {

inline constexpr FileSystemKind xfsKind{
    .name = "xfs",
    .volumes = "XFS",
    .announcement = "Creating XFS Parser.",
    .makeParser = &makeParser<XFSParser>,
};

} // namespace agent::core::fs
