#pragma once

#include <compare>
#include <cstdint>

namespace agent {

/// A run of blocks. The unit of a block is that of whoever made the range.
struct BlockRange {
    std::uint64_t start = 0;
    std::uint64_t length = 0;

    [[nodiscard]] constexpr bool empty() const noexcept { return length == 0; }
    /// The first block behind the range; it wraps if the range is nonsense.
    [[nodiscard]] constexpr std::uint64_t end() const noexcept { return start + length; }

    /// By start, then by length.
    // NOLINTNEXTLINE(modernize-use-nullptr): it is the comparison with 0 that this stands for
    constexpr auto operator<=>(const BlockRange&) const noexcept = default;
};

/// Turns a range of map entries, relative to the entry `offset` of the map, into volume blocks of which one
/// entry covers `factor`.
[[nodiscard]] constexpr BlockRange scaleUp(std::uint64_t factor, const BlockRange& range,
                                           std::uint64_t offset) noexcept {
    return {(range.start + offset) * factor, range.length * factor};
}

/// Turns a range of map entries, relative to the entry `offset` of the map, into the volume blocks that it
/// covers whole, one of which has `factor` entries. The offset is meant to be a multiple of the factor.
[[nodiscard]] constexpr BlockRange scaleDown(std::uint64_t factor, const BlockRange& range,
                                             std::uint64_t offset) noexcept {
    const auto whole = static_cast<std::int64_t>(range.length - range.end() % factor);
    return {(range.start + offset + factor - 1) / factor,
            whole > 0 ? static_cast<std::uint64_t>(whole) / factor : 0};
}

} // namespace agent
