#pragma once

#include "core/fs/IBlockBitmapChunkProvider.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace agent::test {

/// A bitmap provider that provides the given bits, in either bit order.
class FixedBitmap : public core::fs::IBlockBitmapChunkProvider {
public:
    explicit FixedBitmap(std::vector<bool> bits, bool msbFirst = false)
        : bits(std::move(bits)), msbFirst(msbFirst) {}

    std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                std::size_t bufferBytes) override {
        const std::uint64_t left = bits.size() - std::min<std::uint64_t>(startBlock, bits.size());
        const std::uint64_t count = std::min<std::uint64_t>(left, bufferBytes * 8);
        std::memset(buffer, 0, bufferBytes);
        for (std::uint64_t bit = 0; bit < count; ++bit) {
            if (bits[startBlock + bit]) {
                const unsigned place = bit % 8;
                buffer[bit / 8] |= static_cast<std::uint8_t>(1U << (msbFirst ? 7 - place : place));
            }
        }
        return static_cast<std::int64_t>(count);
    }
    [[nodiscard]] bool isBitmapMsbFirst() const override { return msbFirst; }

private:
    std::vector<bool> bits;
    bool msbFirst;
};

} // namespace agent::test
