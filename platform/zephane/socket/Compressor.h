#pragma once

#include "zephane/socket/Filter.h"

#include <memory>
#include <vector>

struct ZSTD_CCtx_s; // NOLINT(readability-identifier-naming): the name of the library

namespace zephane {

/// Compresses into a zstd stream of level 1, which is flushed at the end of each piece, so that no data is
/// held back.
/// Owns:    the zstd context and an output buffer.
/// Threads: one at a time.
/// Fails:   std::bad_alloc and std::runtime_error, for an error of the library.
class Compressor : public Filter {
public:
    Compressor();
    ~Compressor() override;
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;

    void feed(std::span<const std::uint8_t> piece) override;
    std::span<const std::uint8_t> next() override;

private:
    struct Free {
        void operator()(ZSTD_CCtx_s* context) const noexcept;
    };

    std::unique_ptr<ZSTD_CCtx_s, Free> context;
    std::span<const std::uint8_t> input;
    bool hasMore = false; ///< the current piece isn't compressed or flushed completely
    std::vector<std::uint8_t> output;
};

} // namespace zephane
