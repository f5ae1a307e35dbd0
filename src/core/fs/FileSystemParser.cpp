#include "core/fs/FileSystemParser.h"

#include <utility>

namespace agent::core::fs {

FileSystemParser::FileSystemParser(info::Logger& logger, std::string failure,
                                   std::unique_ptr<IFileSystemParser> impl)
    : logger(logger), failure(std::move(failure)), impl(std::move(impl)) {}

std::int64_t FileSystemParser::getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                              std::size_t bufferBytes) {
    const std::int64_t blocks = impl->getBitmapChunk(startBlock, buffer, bufferBytes);
    if (blocks < 0) {
        info::LogEntry(logger, info::level::error, info::reason("used-blocks-unknown")) << failure << blocks;
    }
    return blocks;
}

} // namespace agent::core::fs
