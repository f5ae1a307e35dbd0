#pragma once

#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"
#include "info/log/Logger.h"
#include "support/MemoryVolume.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

/// Damaged volumes: a parser may fail, but it must not read or write out of bounds (the sanitizers check
/// this), take longer than the volume justifies, or report more blocks than its buffer holds.
namespace agent::core::fs::hostile {

inline constexpr std::size_t bufferBytes = 1024;
inline constexpr std::size_t mostReads = 10'000;

/// Parses a volume with whatever it contains. Returns the parser's result, or -2 if no parser recognizes it.
inline std::int64_t parse(test::MemoryVolume& volume) {
    info::Logger silent({});
    volume.requests.clear();
    const auto provider = UsedBlockBitmapChunkProviderFactory(silent, 512, &volume).create();
    if (!provider) {
        return -2;
    }
    const auto buffer = std::make_unique<std::vector<std::uint8_t>>(bufferBytes);
    try {
        return provider->getBitmapChunk(0, buffer->data(), buffer->size());
    } catch (const std::runtime_error&) {
        return -1;
    }
}

inline testing::AssertionResult isBounded(test::MemoryVolume& volume) {
    const std::int64_t blocks = parse(volume);
    if (blocks > static_cast<std::int64_t>(bufferBytes * 8)) {
        return testing::AssertionFailure() << "it tells of " << blocks << " blocks";
    }
    if (volume.requests.size() > mostReads) {
        return testing::AssertionFailure() << "it took " << volume.requests.size() << " reads";
    }
    return testing::AssertionSuccess();
}

/// Flips each bit of [begin, end), one at a time.
inline void expectBoundedWithEachBitFlipped(test::MemoryVolume& volume, std::uint64_t begin,
                                            std::uint64_t end) {
    for (std::uint64_t offset = begin; offset < end; ++offset) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            const auto mask = static_cast<std::uint8_t>(1U << bit);
            volume.at(offset) ^= mask;
            ASSERT_TRUE(isBounded(volume)) << "bit " << bit << " of byte " << offset;
            volume.at(offset) ^= mask;
        }
    }
}

} // namespace agent::core::fs::hostile
