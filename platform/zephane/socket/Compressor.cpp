#include "zephane/socket/Compressor.h"

#include "zephane/wire/Limits.h"

#include <new>
#include <stdexcept>
#include <zstd.h>

namespace zephane {

namespace {

/// A higher level takes longer than our networks would take to send the bytes it saves.
constexpr int level = 1;

} // namespace

void Compressor::Free::operator()(ZSTD_CCtx_s* context) const noexcept {
    ZSTD_freeCCtx(context);
}

Compressor::Compressor() : context(ZSTD_createCCtx()), output(wire::frameBytes) {
    if (!context) {
        throw std::bad_alloc();
    }
    const std::size_t result = ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, level);
    if (ZSTD_isError(result) != 0) {
        throw std::runtime_error(ZSTD_getErrorName(result));
    }
}

Compressor::~Compressor() = default;

void Compressor::feed(std::span<const std::uint8_t> piece) {
    input = piece;
    hasMore = !piece.empty();
}

std::span<const std::uint8_t> Compressor::next() {
    std::size_t produced = 0;
    while (hasMore && produced == 0) {
        ZSTD_inBuffer from{input.data(), input.size(), 0};
        ZSTD_outBuffer to{output.data(), output.size(), 0};
        const std::size_t left = ZSTD_compressStream2(context.get(), &to, &from, ZSTD_e_flush);
        if (ZSTD_isError(left) != 0) {
            throw std::runtime_error(ZSTD_getErrorName(left));
        }
        input = input.subspan(from.pos);
        hasMore = left > 0;
        produced = to.pos;
    }
    return std::span(output).first(produced);
}

} // namespace zephane
