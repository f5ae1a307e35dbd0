#pragma once

#include <compare>
#include <cstdint>

namespace agent {

/// A run of blocks. The creator of the range decides how large a block is.
struct BlockRange {
    std::uint64_t start = 0;
    std::uint64_t length = 0;

    [[nodiscard]] constexpr bool empty() const noexcept { return length == 0; }
    /// The first block past the range; wraps around on overflow.
    [[nodiscard]] constexpr std::uint64_t end() const noexcept { return start + length; }

    /// Orders by start, then by length.
    // NOLINTNEXTLINE(modernize-use-nullptr): it is the comparison with 0 that this stands for
    constexpr auto operator<=>(const BlockRange&) const noexcept = default;
};

/// Converts a range of map entries, relative to the map's entry `offset`, to volume blocks. One entry covers
/// `factor` blocks.
[[nodiscard]] constexpr BlockRange scaleUp(std::uint64_t factor, const BlockRange& range,
                                           std::uint64_t offset) noexcept {
    return {(range.start + offset) * factor, range.length * factor};
}

/// Converts a range of map entries, relative to the map's entry `offset`, to the volume blocks that it covers
/// completely. One block has `factor` entries. `offset` should be a multiple of `factor`.
[[nodiscard]] constexpr BlockRange scaleDown(std::uint64_t factor, const BlockRange& range,
                                             std::uint64_t offset) noexcept {
    const auto whole = static_cast<std::int64_t>(range.length - range.end() % factor);
    return {(range.start + offset + factor - 1) / factor,
            whole > 0 ? static_cast<std::uint64_t>(whole) / factor : 0};
}

} // namespace agent
