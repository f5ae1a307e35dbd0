#pragma once

#include "core/fs/IFileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "core/fs/fat/FATBootSector.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

class FATWindow;

/// The implementation of FATParser. docs/formats/fat.md describes what it reads, and what follows for a
/// backup.
class FATParserImpl : public IFileSystemParser {
public:
    FATParserImpl(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);

    bool recognize() override;
    std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                std::size_t bufferBytes) override;
    [[nodiscard]] std::uint32_t getBlockSize() const override;

private:
    /// A range of blocks, and the caller's bits for them.
    struct Stretch {
        std::uint8_t* buffer;
        std::uint64_t begin; ///< the block that the buffer's first bit stands for
        std::uint64_t end;
    };

    std::int64_t markUsed(const Stretch& blocks);
    std::int64_t markClusters(FATWindow& fat, const Stretch& blocks, std::uint64_t firstBlock);
    std::int64_t fail(const char* reason);

    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize;
    FATBootSector boot;
};

} // namespace agent::core::fs
