#include "core/fs/ntfs/NTFSFileBlocks.h"

#include "core/fs/ntfs/NTFSParserImpl.h"

#include <stdexcept>

namespace agent::core::fs {

FileBlocks findNTFSFile(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize,
                        const std::string& path) {
    NTFSParserImpl parser(logger, reader, sectorSize);
    if (!parser.recognize()) {
        throw std::runtime_error("the volume is not NTFS");
    }
    const NTFSDataRuns found = parser.findFileRuns(path);
    if (!found.isComplete) {
        throw std::runtime_error("not all clusters of the file are told of");
    }
    FileBlocks file{.blockSize = parser.getBlockSize(), .runs = {}};
    for (const NTFSRun& run : found.runs) {
        if (!run.isHole) {
            file.runs.push_back(
                {static_cast<std::uint64_t>(run.lcn), static_cast<std::uint64_t>(run.length)});
        }
    }
    return file;
}

} // namespace agent::core::fs
