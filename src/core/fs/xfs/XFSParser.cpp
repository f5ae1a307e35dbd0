#include "core/fs/xfs/XFSParser.h"

#include "core/fs/xfs/XFSParserImpl.h"

namespace agent::core::fs {

XFSParser::XFSParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : logger(logger), impl(std::make_unique<XFSParserImpl>(logger, reader, sectorSize)) {}

XFSParser::~XFSParser() = default;

std::int64_t XFSParser::getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                       std::size_t bufferBytes) {
    const std::int64_t blocks = impl->getBitmapChunk(startBlock, buffer, bufferBytes);
    if (blocks < 0) {
        logger.log(info::level::error,
                   "A logical error occurred while attempting to parse XFS bitmap, err: %ld", blocks);
    }
    return blocks;
}

std::uint32_t XFSParser::getBlockSize() const {
    return impl->getBlockSize();
}

bool XFSParser::recognize() {
    return impl->recognize();
}

} // namespace agent::core::fs
