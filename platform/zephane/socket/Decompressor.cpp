#include "zephane/socket/Decompressor.h"

#include "zephane/wire/Limits.h"
#include "zephane/wire/ProtocolError.h"

#include <algorithm>
#include <array>
#include <new>
#include <stdexcept>
#include <string>
#include <zstd.h>

namespace zephane {

namespace {

/// The first bytes of each zstd stream.
constexpr std::array<std::uint8_t, 4> mark{0x28, 0xb5, 0x2f, 0xfd};

} // namespace

void Decompressor::Free::operator()(ZSTD_DCtx_s* context) const noexcept {
    ZSTD_freeDCtx(context);
}

Decompressor::Decompressor() : context(ZSTD_createDCtx()), output(wire::frameBytes) {
    if (!context) {
        throw std::bad_alloc();
    }
    const std::size_t result = ZSTD_DCtx_setParameter(context.get(), ZSTD_d_windowLogMax, wire::windowLog);
    if (ZSTD_isError(result) != 0) {
        throw std::runtime_error(ZSTD_getErrorName(result));
    }
}

Decompressor::~Decompressor() = default;

void Decompressor::feed(std::span<const std::uint8_t> piece) {
    input = piece;
}

std::span<const std::uint8_t> Decompressor::next() {
    std::size_t produced = 0;
    while (produced == 0 && (hasMore || !input.empty())) {
        checkMark();
        ZSTD_inBuffer from{input.data(), input.size(), 0};
        ZSTD_outBuffer to{output.data(), output.size(), 0};
        const std::size_t result = ZSTD_decompressStream(context.get(), &to, &from);
        if (ZSTD_isError(result) != 0) {
            throw wire::ProtocolError(std::string("the compressed stream is broken: ") +
                                      ZSTD_getErrorName(result));
        }
        input = input.subspan(from.pos);
        if (result == 0) {
            marked = 0; // a stream has ended; another may follow
        }
        // If the buffer is full, the library may hold more data. It isn't called again unless there may be
        // progress, because it fails after a few calls without any.
        hasMore = to.pos == to.size;
        produced = to.pos;
    }
    return std::span(output).first(produced);
}

/// The library also reads old formats, to whose windows the limit doesn't apply.
void Decompressor::checkMark() {
    for (const std::uint8_t byte : input.first(std::min(mark.size() - marked, input.size()))) {
        if (byte != mark.at(marked)) {
            throw wire::ProtocolError("the compressed stream is of another format");
        }
        ++marked;
    }
}

} // namespace zephane
