#include "core/fs/ext/EXTParser.h"

#include "core/fs/ext/EXTParserImpl.h"

namespace agent::core::fs {

EXTParser::EXTParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : FileSystemParser(logger, "A logical error occurred while attempting to parse the EXT bitmap, err: ",
                       std::make_unique<EXTParserImpl>(logger, reader, sectorSize)) {}

} // namespace agent::core::fs
