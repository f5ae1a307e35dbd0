#pragma once

#include "core/block/IncrementalBitmapInfo.h"
#include "core/fs/IBlockBitmapChunkProvider.h"
#include "info/log/Logger.h"

#include <memory>

namespace agent::core::block {

/// The snapshot driver's map of changed blocks, read from its file in 64-bit words.
/// Owns:    nothing between two calls: each call opens the file.
/// Threads: one at a time.
/// Fails:   by return value, like every IBlockBitmapChunkProvider. Even if the file has been replaced,
///          reading neither blocks nor overruns the buffer.
class UnchangedBlockBitmapChunkProvider : public fs::IBlockBitmapChunkProvider {
public:
    UnchangedBlockBitmapChunkProvider(info::Logger& logger, IncrementalBitmapInfo bitmapInfo);
    UnchangedBlockBitmapChunkProvider(const UnchangedBlockBitmapChunkProvider&) = delete;
    UnchangedBlockBitmapChunkProvider& operator=(const UnchangedBlockBitmapChunkProvider&) = delete;
    UnchangedBlockBitmapChunkProvider(UnchangedBlockBitmapChunkProvider&&) = delete;
    UnchangedBlockBitmapChunkProvider& operator=(UnchangedBlockBitmapChunkProvider&&) = delete;
    ~UnchangedBlockBitmapChunkProvider() override;

    /// `startElement` and the result are in words.
    std::int64_t getBitmapChunk(std::uint64_t startElement, std::uint8_t* buffer,
                                std::size_t bufferBytes) override;

private:
    class Impl;
    std::unique_ptr<const Impl> impl;
};

} // namespace agent::core::block
