#include "core/fs/fat/FATParser.h"

#include "core/fs/fat/FATParserImpl.h"

namespace agent::core::fs {

FATParser::FATParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : FileSystemParser(logger, "A logical error occurred while attempting to parse the FAT bitmap, err: ",
                       std::make_unique<FATParserImpl>(logger, reader, sectorSize)) {}

} // namespace agent::core::fs
