#pragma once

#include "zephane/socket/Filter.h"

#include <memory>
#include <vector>

struct ZSTD_DCtx_s; // NOLINT(readability-identifier-naming): the name of the library

namespace zephane {

/// Takes a zstd stream apart. A window beyond wire::windowLog is refused, and so are older formats than RFC
/// 8878. What comes out is handed out in bounded pieces, however much it is. See Filter.
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
    bool hasMore = false; ///< of what has been taken apart already
    std::vector<std::uint8_t> output;
    std::size_t marked = 0; ///< bytes of the mark that have come
};

} // namespace zephane
