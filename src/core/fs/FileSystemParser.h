#pragma once

#include "core/fs/IFileSystemParser.h"
#include "info/log/Logger.h"

#include <memory>
#include <string>

namespace agent::core::fs {

/// What the parsers of all kinds have in common around what each does by itself: a map that can't be read
/// gives one more line.
/// Owns:    what does the work.
/// Threads: one at a time; moves the reader's position.
/// Fails:   a negative result, after a line in the log; the caller then takes every block as used.
class FileSystemParser : public IFileSystemParser {
public:
    /// `failure` is that line, up to the number that is the result.
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
