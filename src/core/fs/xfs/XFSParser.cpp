#include "core/fs/xfs/XFSParser.h"

#include "core/fs/xfs/XFSParserImpl.h"

namespace agent::core::fs {

XFSParser::XFSParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : FileSystemParser(logger, "XFS bitmap", std::make_unique<XFSParserImpl>(logger, reader, sectorSize)) {}

} // namespace agent::core::fs
