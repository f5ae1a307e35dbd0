#include "core/fs/ntfs/NTFSParser.h"

#include "core/fs/ntfs/NTFSParserImpl.h"

namespace agent::core::fs {

NTFSParser::NTFSParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : FileSystemParser(logger, "A logical error occurred while attempting to parse the NTFS bitmap, err: ",
                       std::make_unique<NTFSParserImpl>(logger, reader, sectorSize)) {}

} // namespace agent::core::fs
