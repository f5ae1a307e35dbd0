#pragma once

#include "core/fs/IBlockBitmapChunkProvider.h"
#include "core/fs/IFileSystemRecognizer.h"

namespace agent::core::fs {

/// The parser of one kind of file system: recognises it on a volume, and then reads which blocks are used. It
/// has no map before `recognize` has returned true.
/// Owns:    what it has read of the superblock; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   `recognize` returns false, `getBitmapChunk` a negative number; both log why.
class IFileSystemParser : public IBlockBitmapChunkProvider, public IFileSystemRecognizer {};

} // namespace agent::core::fs
