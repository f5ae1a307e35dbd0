#pragma once

#include "core/fs/IBlockBitmapChunkProvider.h"
#include "core/fs/IFileSystemRecognizer.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <memory>

namespace agent::core::fs {

class EXTParserImpl;

/// The used blocks of ext2, ext3 and ext4.
/// The map is that of the disk, so the volume must be a frozen or a clean one: while a journal would still be
/// replayed at a mount, there is no map.
/// Owns:    what it has read of the super block; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   a negative result, after a line in the log; the caller then takes every block as used.
class EXTParser : public IBlockBitmapChunkProvider, public IFileSystemRecognizer {
public:
    EXTParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);
    EXTParser(const EXTParser&) = delete;
    EXTParser& operator=(const EXTParser&) = delete;
    ~EXTParser() override;

    std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                std::size_t bufferBytes) override;
    [[nodiscard]] std::uint32_t getBlockSize() const override;
    bool recognize() override;

private:
    info::Logger& logger;
    std::unique_ptr<EXTParserImpl> impl;
};

} // namespace agent::core::fs
