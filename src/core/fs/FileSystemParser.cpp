#include "core/fs/FileSystemParser.h"

#include <utility>

namespace agent::core::fs {

FileSystemParser::FileSystemParser(info::Logger& logger, std::string subject,
                                   std::unique_ptr<IFileSystemParser> impl)
    : logger(logger), subject(std::move(subject)), impl(std::move(impl)) {}

std::int64_t FileSystemParser::getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                              std::size_t bufferBytes) {
    const std::int64_t blocks = impl->getBitmapChunk(startBlock, buffer, bufferBytes);
    if (blocks < 0) {
        logger.log(info::level::error, "A logical error occurred while attempting to parse %s, err: %ld",
                   subject.c_str(), blocks);
    }
    return blocks;
}

} // namespace agent::core::fs
