#pragma once

#include "zephane/socket/Filter.h"

#include <memory>
#include <vector>

struct ZSTD_DCtx_s; // NOLINT(readability-identifier-naming): the name of the library

namespace zephane {

/// Decompresses a zstd stream. Refuses a window larger than wire::windowLog allows, and formats older than
/// RFC 8878. Returns the data in pieces of bounded size, however well it was compressed.
/// Owns:    the zstd context and an output buffer.
/// Threads: one at a time.
/// Fails:   wire::ProtocolError for an invalid stream; the constructor std::bad_alloc and std::runtime_error.
class Decompressor : public Filter {
public:
    Decompressor();
    ~Decompressor() override;
    Decompressor(const Decompressor&) = delete;
    Decompressor& operator=(const Decompressor&) = delete;

    void feed(std::span<const std::uint8_t> piece) override;
    std::span<const std::uint8_t> next() override;

private:
    struct Free {
        void operator()(ZSTD_DCtx_s* context) const noexcept;
    };

    void checkMark();

    std::unique_ptr<ZSTD_DCtx_s, Free> context;
    std::span<const std::uint8_t> input;
    bool hasMore = false; ///< decompressed data may be left in the library
    std::vector<std::uint8_t> output;
    std::size_t marked = 0; ///< how many bytes of the mark have been checked
};

} // namespace zephane
