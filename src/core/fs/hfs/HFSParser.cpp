#include "core/fs/hfs/HFSParser.h"

#include "core/fs/hfs/HFSParserImpl.h"

namespace agent::core::fs {

HFSParser::HFSParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : FileSystemParser(logger, "A logical error occurred while attempting to parse the HFS bitmap, err: ",
                       std::make_unique<HFSParserImpl>(logger, reader, sectorSize)) {}

} // namespace agent::core::fs
