#pragma once

#include "core/block/IncrementalBitmapInfo.h"
#include "core/fs/IBlockBitmapChunkProvider.h"
#include "info/log/Logger.h"

#include <memory>

namespace agent::core::block {

/// The snapshot driver's map of what has changed, read from its file in 64-bit words.
/// Owns:    nothing between two calls: the file is opened for each.
/// Threads: one at a time.
/// Fails:   as the interface says. Whatever the file has become, reading it neither blocks nor goes beyond
///          the buffer.
class UnchangedBlockBitmapChunkProvider : public fs::IBlockBitmapChunkProvider {
public:
    UnchangedBlockBitmapChunkProvider(info::Logger& logger, IncrementalBitmapInfo bitmapInfo);
    UnchangedBlockBitmapChunkProvider(const UnchangedBlockBitmapChunkProvider&) = delete;
    UnchangedBlockBitmapChunkProvider& operator=(const UnchangedBlockBitmapChunkProvider&) = delete;
    UnchangedBlockBitmapChunkProvider(UnchangedBlockBitmapChunkProvider&&) = delete;
    UnchangedBlockBitmapChunkProvider& operator=(UnchangedBlockBitmapChunkProvider&&) = delete;
    ~UnchangedBlockBitmapChunkProvider() override;

    /// `startElement` and the result count words.
    std::int64_t getBitmapChunk(std::uint64_t startElement, std::uint8_t* buffer,
                                std::size_t bufferBytes) override;

private:
    class Impl;
    std::unique_ptr<const Impl> impl;
};

} // namespace agent::core::block
