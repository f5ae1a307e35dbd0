#pragma once

#include "core/fs/IBlockBitmapChunkProvider.h"
#include "core/fs/IFileSystemRecognizer.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <memory>

namespace agent::core::fs {

class XFSParserImpl;

/// The used blocks of XFS. The map is that of the disk: a log that would still be replayed at a mount is not
/// looked at, and nothing in the super block tells of it, so the volume must be a frozen or a clean one.
/// Owns:    what it has read of the super block; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   a negative result, after a line in the log; the caller then takes every block as used.
class XFSParser : public IBlockBitmapChunkProvider, public IFileSystemRecognizer {
public:
    XFSParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);
    XFSParser(const XFSParser&) = delete;
    XFSParser& operator=(const XFSParser&) = delete;
    ~XFSParser() override;

    std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                std::size_t bufferBytes) override;
    [[nodiscard]] std::uint32_t getBlockSize() const override;
    bool recognize() override;

private:
    info::Logger& logger;
    std::unique_ptr<XFSParserImpl> impl;
};

} // namespace agent::core::fs
