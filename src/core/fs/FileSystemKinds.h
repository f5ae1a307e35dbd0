#pragma once

#include "core/fs/FileSystemKind.h"

#include <span>

namespace agent::core::fs {

/// The kinds of file systems whose used blocks can be read, in the order in which they are tried on a volume.
std::span<const FileSystemKind> fileSystemKinds();

} // namespace agent::core::fs
