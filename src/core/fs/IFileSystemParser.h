#pragma once

#include "core/fs/IBlockBitmapChunkProvider.h"
#include "core/fs/IFileSystemRecognizer.h"

namespace agent::core::fs {

/// Knows one kind of file system: tells whether a volume holds it, and then which blocks are used. Before it
/// has recognised the volume it has no map.
/// Owns:    what it has read of the super block; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   as both interfaces say.
class IFileSystemParser : public IBlockBitmapChunkProvider, public IFileSystemRecognizer {};

} // namespace agent::core::fs
