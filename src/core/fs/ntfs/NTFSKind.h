#pragma once

#include "core/fs/FileSystemKind.h"
#include "core/fs/ntfs/NTFSFileBlocks.h"
#include "core/fs/ntfs/NTFSParser.h"

namespace agent::core::fs {

inline constexpr FileSystemKind ntfsKind{
    .name = "ntfs",
    .volumes = "NTFS",
    .announcement = "Creating NTFS Parser.",
    .makeParser = &makeParser<NTFSParser>,
    .findFile = &findNTFSFile,
};

} // namespace agent::core::fs
