#pragma once

#include "core/fs/IFileSystemParser.h"
#include "info/log/Logger.h"

#include <memory>
#include <string>

namespace agent::core::fs {

/// The common base of the parsers of all kinds. Forwards all calls to the kind's implementation, and logs an
/// error if the map can't be read.
/// Owns:    the implementation; logger and reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   by a negative result, after a log line; the caller then treats every block as used.
class FileSystemParser : public IFileSystemParser {
public:
    /// `failure` is the text of the error's log line; the negative result is appended to it.
    FileSystemParser(info::Logger& logger, std::string failure, std::unique_ptr<IFileSystemParser> impl);
    FileSystemParser(const FileSystemParser&) = delete;
    FileSystemParser& operator=(const FileSystemParser&) = delete;
    ~FileSystemParser() override = default;

    std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                std::size_t bufferBytes) override;
    [[nodiscard]] bool isBitmapMsbFirst() const override { return impl->isBitmapMsbFirst(); }
    [[nodiscard]] std::uint32_t getBlockSize() const override { return impl->getBlockSize(); }
    bool recognize() override { return impl->recognize(); }

private:
    info::Logger& logger;
    std::string failure;
    std::unique_ptr<IFileSystemParser> impl;
};

} // namespace agent::core::fs
