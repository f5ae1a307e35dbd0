#include "core/fs/xfs/XFSParser.h"

#include "core/fs/xfs/XFSParserImpl.h"

namespace agent::core::fs {

XFSParser::XFSParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : FileSystemParser(logger, "A logical error occurred while attempting to parse XFS bitmap, err: ",
                       std::make_unique<XFSParserImpl>(logger, reader, sectorSize)) {}

} // namespace agent::core::fs
