#include "core/fs/ext/EXTParser.h"

#include "core/fs/ext/EXTParserImpl.h"

namespace agent::core::fs {

EXTParser::EXTParser(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize)
    : logger(logger), impl(std::make_unique<EXTParserImpl>(logger, reader, sectorSize)) {}

EXTParser::~EXTParser() = default;

std::int64_t EXTParser::getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                       std::size_t bufferBytes) {
    const std::int64_t blocks = impl->getBitmapChunk(startBlock, buffer, bufferBytes);
    if (blocks < 0) {
        logger.log(info::level::error,
                   "A logical error occurred while attempting to parse the EXT bitmap, err: %ld", blocks);
    }
    return blocks;
}

std::uint32_t EXTParser::getBlockSize() const {
    return impl->getBlockSize();
}

bool EXTParser::recognize() {
    return impl->recognize();
}

} // namespace agent::core::fs
