#pragma once

#include "core/fs/IBlockBitmapChunkProvider.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <memory>
#include <string>

namespace agent::core::fs {

/// Finds the parser for a volume's file system.
/// Owns:    nothing; the reader must outlive the parsers.
/// Threads: one at a time; moves the reader's position.
/// Fails:   `create` returns null if no parser recognises the file system.
class UsedBlockBitmapChunkProviderFactory {
public:
    UsedBlockBitmapChunkProviderFactory(info::Logger& logger, std::uint32_t sectorSize,
                                        IVolumeReader* reader);
    UsedBlockBitmapChunkProviderFactory(const UsedBlockBitmapChunkProviderFactory&) = delete;
    UsedBlockBitmapChunkProviderFactory& operator=(const UsedBlockBitmapChunkProviderFactory&) = delete;
    virtual ~UsedBlockBitmapChunkProviderFactory() = default;

    /// A parser of the volume's used blocks, ready for use.
    virtual std::unique_ptr<IBlockBitmapChunkProvider> create();
    /// For a volume that no parser recognises: which file system it looks like, and why it isn't recognised.
    /// Empty if it looks like none.
    std::string nearMiss();

private:
    info::Logger& logger;
    std::uint32_t sectorSize;
    IVolumeReader* reader;
};

} // namespace agent::core::fs
