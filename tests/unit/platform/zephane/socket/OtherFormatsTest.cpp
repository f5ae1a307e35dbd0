#include "zephane/socket/Decompressor.h"
#include "zephane/wire/ProtocolError.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>
#include <zstd.h>

namespace zephane {
namespace {

using Bytes = std::vector<std::uint8_t>;

/// Streams that libzstd may accept silently: three legacy formats with windows of 64 to 128 MiB, and a
/// skippable frame.
const std::array<Bytes, 4> others{
    Bytes{0x25, 0xb5, 0x2f, 0xfd, 0x0f, 0, 0x80}, Bytes{0x26, 0xb5, 0x2f, 0xfd, 0x0f, 0, 0x80},
    Bytes{0x27, 0xb5, 0x2f, 0xfd, 0, 0x88, 0x80}, Bytes{0x50, 0x2a, 0x4d, 0x18, 3, 0, 0, 0}};

std::size_t plainBytes(Decompressor& decompressor, std::span<const std::uint8_t> input) {
    std::size_t count = 0;
    decompressor.feed(input);
    for (auto piece = decompressor.next(); !piece.empty(); piece = decompressor.next()) {
        count += piece.size();
    }
    return count;
}

/// A complete stream of `length` zeros.
Bytes wholeStream(std::size_t length) {
    const Bytes zeros(length);
    Bytes stream(ZSTD_compressBound(length));
    stream.resize(ZSTD_compress(stream.data(), stream.size(), zeros.data(), zeros.size(), 1));
    return stream;
}

TEST(OtherFormats, AreRefused) {
    for (const Bytes& other : others) {
        Decompressor decompressor;
        EXPECT_THROW(plainBytes(decompressor, other), wire::ProtocolError) << testing::PrintToString(other);
    }
}

TEST(OtherFormats, AreRefusedByteByByte) {
    for (const Bytes& other : others) {
        Decompressor decompressor;
        const auto feedAll = [&] {
            for (const std::uint8_t byte : std::span(other).first(4)) {
                plainBytes(decompressor, {&byte, 1});
            }
        };
        EXPECT_THROW(feedAll(), wire::ProtocolError) << testing::PrintToString(other);
    }
}

TEST(OtherFormats, AreRefusedBehindAStreamThatHasEnded) {
    for (const Bytes& other : others) {
        Decompressor decompressor;
        EXPECT_EQ(plainBytes(decompressor, wholeStream(300'000)), 300'000U);
        EXPECT_EQ(plainBytes(decompressor, wholeStream(1)), 1U) << "one more of this format is taken";
        EXPECT_THROW(plainBytes(decompressor, other), wire::ProtocolError) << testing::PrintToString(other);

        Decompressor another;
        Bytes together = wholeStream(1);
        together.insert(together.end(), other.begin(), other.end());
        EXPECT_THROW(plainBytes(another, together), wire::ProtocolError) << testing::PrintToString(other);
    }
}

} // namespace
} // namespace zephane
