#include "zephane/socket/Compressor.h"
#include "zephane/socket/Decompressor.h"
#include "zephane/wire/Limits.h"
#include "zephane/wire/ProtocolError.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sys/resource.h>
#include <zstd.h>

namespace zephane {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes pass(Filter& filter, std::span<const std::uint8_t> input) {
    Bytes output;
    filter.feed(input);
    for (auto piece = filter.next(); !piece.empty(); piece = filter.next()) {
        EXPECT_LE(piece.size(), wire::frameBytes);
        output.insert(output.end(), piece.begin(), piece.end());
    }
    return output;
}

Bytes text(std::size_t length) {
    constexpr std::string_view letters = "what is written twice is written better ";
    Bytes bytes(length);
    for (std::size_t index = 0; index < length; ++index) {
        bytes[index] = static_cast<std::uint8_t>(letters[index * index % letters.size()]);
    }
    return bytes;
}

Bytes randomBytes(std::size_t length) {
    std::mt19937 generator(1);
    Bytes bytes(length);
    std::ranges::generate(bytes, [&] { return static_cast<std::uint8_t>(generator()); });
    return bytes;
}

TEST(Compression, EachPieceComesOutWholeAtOnce) {
    Compressor compressor;
    Decompressor decompressor;
    for (const std::size_t length :
         {std::size_t{1}, std::size_t{28}, wire::frameBytes, 3 * wire::mebibyte, std::size_t{0}}) {
        for (const Bytes& data : {text(length), randomBytes(length), Bytes(length)}) {
            EXPECT_TRUE(pass(decompressor, pass(compressor, data)) == data) << length;
        }
    }
}

TEST(Compression, ComesOutTheSameWhereverItIsCut) {
    const Bytes data = text(1000);
    Compressor compressor;
    const Bytes packed = pass(compressor, data);
    for (std::size_t cut = 0; cut <= packed.size(); ++cut) {
        Decompressor decompressor;
        Bytes output = pass(decompressor, std::span(packed).first(cut));
        EXPECT_LE(output.size(), data.size());
        EXPECT_TRUE(std::equal(output.begin(), output.end(), data.begin())) << cut;
        const Bytes rest = pass(decompressor, std::span(packed).subspan(cut));
        output.insert(output.end(), rest.begin(), rest.end());
        EXPECT_TRUE(output == data) << cut;
    }
}

TEST(Compression, MakesTextSmallAndNoiseHardlyLarger) {
    Compressor compressor;
    EXPECT_LT(pass(compressor, text(wire::mebibyte)).size(), wire::mebibyte / 10);
    EXPECT_LT(pass(compressor, randomBytes(wire::mebibyte)).size(), wire::mebibyte * 101 / 100);
    std::size_t sent = 0;
    for (int count = 0; count < 16; ++count) {
        sent += pass(compressor, randomBytes(wire::digestUnit)).size();
    }
    EXPECT_LT(sent, wire::mebibyte * 101 / 100);
}

TEST(Compression, FlippedBitsAreRefusedOrComeOutBounded) {
    const Bytes data = text(3000);
    Compressor compressor;
    const Bytes packed = pass(compressor, data);
    std::size_t refused = 0;
    for (std::size_t bit = 0; bit < packed.size() * 8; ++bit) {
        Bytes flipped = packed;
        flipped[bit / 8] ^= static_cast<std::uint8_t>(1U << (bit % 8));
        Decompressor decompressor;
        try {
            EXPECT_LE(pass(decompressor, flipped).size(), wire::mebibyte) << bit;
        } catch (const wire::ProtocolError&) {
            ++refused;
        }
    }
    EXPECT_GT(refused, 32); // at least those in the magic number at the start of the stream
}

TEST(Compression, NonsenseIsRefused) {
    Decompressor decompressor;
    EXPECT_THROW(pass(decompressor, randomBytes(100)), wire::ProtocolError);
}

Bytes frameOf(std::span<const std::uint8_t> data, int windowLog) {
    ZSTD_CCtx* const context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_windowLog, windowLog);
    Bytes frame(ZSTD_compressBound(data.size()));
    ZSTD_inBuffer input{data.data(), data.size(), 0};
    ZSTD_outBuffer output{frame.data(), frame.size(), 0};
    while (ZSTD_compressStream2(context, &output, &input, ZSTD_e_flush) != 0) {
    }
    ZSTD_freeCCtx(context);
    frame.resize(output.pos);
    return frame;
}

TEST(Compression, AWindowThatTakesTooMuchMemoryIsRefused) {
    const Bytes data = text(1000);
    Decompressor largest;
    EXPECT_TRUE(pass(largest, frameOf(data, wire::windowLog)) == data);
    Decompressor tooLarge;
    EXPECT_THROW(pass(tooLarge, frameOf(data, wire::windowLog + 1)), wire::ProtocolError);
    Decompressor far;
    EXPECT_THROW(pass(far, frameOf(data, 27)), wire::ProtocolError);
}

std::size_t residentKilobytes() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<std::size_t>(usage.ru_maxrss);
}

/// 1 GiB of zeros, compressed to about 32 KiB.
Bytes bomb() {
    Compressor compressor;
    const Bytes zeros(64 * wire::mebibyte);
    Bytes packed;
    for (int count = 0; count < 16; ++count) {
        const Bytes part = pass(compressor, zeros);
        packed.insert(packed.end(), part.begin(), part.end());
    }
    return packed;
}

TEST(Compression, AStreamThatGrowsBeyondMeasureComesInBoundedPieces) {
    const Bytes packed = bomb();
    EXPECT_LT(packed.size(), wire::frameBytes);
    const std::size_t before = residentKilobytes();
    Decompressor decompressor;
    decompressor.feed(packed);
    std::size_t total = 0;
    for (auto piece = decompressor.next(); !piece.empty(); piece = decompressor.next()) {
        ASSERT_LE(piece.size(), wire::frameBytes);
        total += piece.size();
    }
    EXPECT_EQ(total, 1024 * wire::mebibyte);
    EXPECT_LT(residentKilobytes() - before, 32 * 1024);
}

} // namespace
} // namespace zephane
