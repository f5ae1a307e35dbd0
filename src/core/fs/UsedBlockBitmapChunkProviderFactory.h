#pragma once

#include "core/fs/IBlockBitmapChunkProvider.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <memory>
#include <string>

namespace agent::core::fs {

/// Finds the parser for whatever file system a volume holds.
/// Owns:    nothing; the reader must outlive the parsers that are made.
/// Threads: one at a time; moves the reader's position.
/// Fails:   null if no parser knows the file system.
class UsedBlockBitmapChunkProviderFactory {
public:
    UsedBlockBitmapChunkProviderFactory(info::Logger& logger, std::uint32_t sectorSize,
                                        IVolumeReader* reader);
    UsedBlockBitmapChunkProviderFactory(const UsedBlockBitmapChunkProviderFactory&) = delete;
    UsedBlockBitmapChunkProviderFactory& operator=(const UsedBlockBitmapChunkProviderFactory&) = delete;
    virtual ~UsedBlockBitmapChunkProviderFactory() = default;

    /// A parser of the volume's used blocks, ready for use.
    virtual std::unique_ptr<IBlockBitmapChunkProvider> create();
    /// Of a volume that no parser knows: what it may seem to be, and why it isn't that. Empty if there is
    /// nothing to say.
    std::string nearMiss();

private:
    info::Logger& logger;
    std::uint32_t sectorSize;
    IVolumeReader* reader;
};

} // namespace agent::core::fs
