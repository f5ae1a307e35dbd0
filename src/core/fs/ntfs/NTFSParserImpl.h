#pragma once

#include "core/fs/IFileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "core/fs/ntfs/NTFSBootSector.h"
#include "core/fs/ntfs/NTFSMasterFileTable.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace agent::core::fs {

/// The implementation of NTFSParser. docs/formats/ntfs.md describes what it reads, and what follows for a
/// backup.
class NTFSParserImpl : public IFileSystemParser {
public:
    NTFSParserImpl(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);

    bool recognize() override;
    std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                std::size_t bufferBytes) override;
    [[nodiscard]] std::uint32_t getBlockSize() const override;
    /// Where the content of a file is. `path` is absolute, in UTF-8, with "\" between its parts. The volume
    /// must have been recognised. Throws std::runtime_error if the file can't be found, or has no runs.
    NTFSDataRuns findFileRuns(const std::string& path);

private:
    /// The caller's map.
    struct UsedMap {
        std::uint8_t* buffer;
        std::size_t bytes;
        std::uint64_t startBlock;
    };

    std::optional<std::int64_t> resultWithoutBitmap(std::uint64_t startBlock);
    std::int64_t readBitmap(const UsedMap& used);
    std::uint64_t readRuns(const std::vector<NTFSRun>& runs, const UsedMap& used);
    void readRun(std::uint64_t offset, std::uint8_t* target, std::uint64_t bytes);
    void markPastEndUsed(const UsedMap& used, std::uint64_t filled) const;
    void requireOwnClustersUsed(const std::vector<NTFSRun>& runs, const UsedMap& used,
                                std::uint64_t filled) const;

    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize; // of the device
    NTFSBootSector boot;
    std::optional<NTFSMasterFileTable> files; // empty if the boot sector is unusable
};

} // namespace agent::core::fs
