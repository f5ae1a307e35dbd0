#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace agent {

/// The runs of set bits of a byte, scanned from its most significant bit (position 0) to its least.
struct BitRuns {
    struct Run {
        std::uint8_t runStart = 0;
        std::uint8_t runLength = 0;
    };

    std::uint8_t firstBitSet = 0;
    std::uint8_t lastBitSet = 0;
    std::uint8_t runCount = 0;
    std::array<Run, 4> runs{};
};

/// The runs of every byte value, computed at compile time.
/// Owns:    the table.
/// Threads: any; it is constant.
/// Fails:   never.
class BitRunTable {
public:
    constexpr BitRunTable() noexcept {
        for (std::size_t value = 0; value < rows.size(); ++value) {
            rows[value] = runsOf(static_cast<std::uint8_t>(value));
        }
    }

    [[nodiscard]] constexpr const BitRuns& operator[](std::uint8_t value) const noexcept {
        return rows[value]; // NOLINT(cppcoreguidelines-pro-bounds-constant-array-index): 256 rows
    }

private:
    static constexpr BitRuns runsOf(std::uint8_t value) noexcept {
        BitRuns row;
        bool previous = false;
        for (std::uint8_t position = 0; position < 8; ++position) {
            const bool set = (value & 0x80U >> position) != 0;
            if (set && previous) {
                ++row.runs[row.runCount - 1U].runLength;
            } else if (set) {
                row.runs[row.runCount++] = {position, 1};
            }
            previous = set;
        }
        row.firstBitSet = static_cast<std::uint8_t>(value >> 7U);
        row.lastBitSet = static_cast<std::uint8_t>(value & 1U);
        return row;
    }

    std::array<BitRuns, 256> rows{};
};

inline constexpr BitRunTable bitRunTable;

/// Reverses the order of the bits in each byte of a word.
[[nodiscard]] constexpr std::uint64_t reverseBitsOfBytes(std::uint64_t word) noexcept {
    word = (word >> 1U & 0x5555555555555555) | (word & 0x5555555555555555) << 1U;
    word = (word >> 2U & 0x3333333333333333) | (word & 0x3333333333333333) << 2U;
    return (word >> 4U & 0x0f0f0f0f0f0f0f0f) | (word & 0x0f0f0f0f0f0f0f0f) << 4U;
}

/// The bit-reversal of every byte value, computed at compile time.
/// Owns:    the table.
/// Threads: any; it is constant.
/// Fails:   never.
class BitReversalTable {
public:
    constexpr BitReversalTable() noexcept {
        for (std::size_t value = 0; value < bytes.size(); ++value) {
            bytes[value] = static_cast<std::uint8_t>(reverseBitsOfBytes(value));
        }
    }

    [[nodiscard]] constexpr std::uint8_t operator[](std::uint8_t value) const noexcept {
        return bytes[value];
    }

private:
    std::array<std::uint8_t, 256> bytes{};
};

/// The bit-reversal of every byte value: 0x01 gives 0x80.
inline constexpr BitReversalTable bitReversalTable;

} // namespace agent
