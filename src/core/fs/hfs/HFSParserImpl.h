#pragma once

#include "core/fs/IFileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "core/fs/hfs/HFSVolumeHeader.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace agent::core::fs {

/// The implementation of HFSParser. docs/formats/hfs.md describes what it reads, and what follows for a
/// backup.
class HFSParserImpl : public IFileSystemParser {
public:
    HFSParserImpl(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);

    bool recognize() override;
    std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                std::size_t bufferBytes) override;
    [[nodiscard]] bool isBitmapMsbFirst() const override { return true; }
    [[nodiscard]] std::uint32_t getBlockSize() const override;

private:
    using Extents = std::span<const HFSExtent>;

    /// The caller's map.
    struct UsedMap {
        std::uint8_t* buffer;
        std::size_t bytes;
        std::uint64_t startBlock;
    };

    bool isHeaderTrustworthy();
    bool findExtents(std::vector<HFSExtent>& extents);
    [[nodiscard]] const char* whyUnusable(Extents extents) const;
    std::int64_t copyMap(Extents extents, const UsedMap& used);
    bool read(std::uint64_t diskOffset, std::uint8_t* buffer, std::uint64_t length);
    [[nodiscard]] bool marksOwnBlocksUsed(Extents extents, const UsedMap& used, std::uint64_t blocks) const;
    bool readHeader(std::uint64_t position, HFSVolumeHeader& read);
    std::int64_t fail(const char* reason);

    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize; // of the device, for the alignment of reads
    HFSVolumeHeader header;
};

} // namespace agent::core::fs
