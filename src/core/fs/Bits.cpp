#include "core/fs/Bits.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <numeric>

namespace agent::core::fs {

namespace {

constexpr std::uint64_t byteBits = 8;
constexpr std::uint64_t wordBits = 64;

constexpr std::uint8_t lowBits(std::uint64_t count) {
    return static_cast<std::uint8_t>((1U << count) - 1U);
}

/// Returns up to eight bits from any bit position.
std::uint8_t bitsAt(const std::uint8_t* source, std::uint64_t bit, std::uint64_t count) {
    const std::uint8_t* const first = source + bit / byteBits;
    const std::uint64_t shift = bit % byteBits;
    unsigned bits = static_cast<unsigned>(first[0]) >> shift;
    if (shift + count > byteBits) {
        bits |= static_cast<unsigned>(first[1]) << (byteBits - shift);
    }
    return static_cast<std::uint8_t>(bits & lowBits(count));
}

std::uint64_t loadWord(const std::uint8_t* bytes) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word); // the agent only runs on little-endian machines
    return word;
}

void storeWord(std::uint8_t* bytes, std::uint64_t word) {
    std::memcpy(bytes, &word, sizeof word);
}

/// Copies whole words from a source that begins within a byte to a target that begins at one. Returns the
/// number of bits copied.
std::uint64_t copyShiftedWords(std::uint8_t* target, const std::uint8_t* source, std::uint64_t shift,
                               std::uint64_t count) {
    std::uint64_t done = 0;
    for (; count - done >= wordBits; done += wordBits) {
        const std::uint8_t* const from = source + done / byteBits;
        const std::uint64_t above = from[sizeof(std::uint64_t)];
        storeWord(target + done / byteBits, loadWord(from) >> shift | above << (wordBits - shift));
    }
    return done;
}

/// Copies whole bytes, or whole words if the source is shifted, to a target that begins at a byte. Returns
/// the number of bits copied.
std::uint64_t copyBulk(std::uint8_t* target, const std::uint8_t* source, std::uint64_t sourceBit,
                       std::uint64_t count) {
    const std::uint8_t* const first = source + sourceBit / byteBits;
    const std::uint64_t shift = sourceBit % byteBits;
    if (shift != 0) {
        return copyShiftedWords(target, first, shift, count);
    }
    std::memcpy(target, first, count / byteBits);
    return count / byteBits * byteBits;
}

/// Sets bits to one value. `whole` is a byte of that value; `replaceBits` sets the masked bits of a byte to
/// it.
template <class ReplaceBits>
void assignBits(std::uint8_t* map, std::uint64_t firstBit, std::uint64_t count, int whole,
                const ReplaceBits& replaceBits) {
    std::uint8_t* const first = map + firstBit / byteBits;
    const std::uint64_t within = firstBit % byteBits;
    if (within + count <= byteBits) {
        if (count > 0) {
            *first = replaceBits(*first, lowBits(count) << within);
        }
        return;
    }
    const std::uint64_t head = byteBits - within;
    const std::uint64_t bytes = (count - head) / byteBits;
    const std::uint64_t tail = (count - head) % byteBits;
    *first = replaceBits(*first, lowBits(head) << within);
    std::memset(first + 1, whole, bytes);
    if (tail > 0) {
        first[1 + bytes] = replaceBits(first[1 + bytes], lowBits(tail));
    }
}

} // namespace

void copyBits(std::uint8_t* target, std::uint64_t targetBit, const std::uint8_t* source,
              std::uint64_t sourceBit, std::uint64_t count) {
    while (count > 0) {
        const std::uint64_t within = targetBit % byteBits;
        if (within == 0) {
            const std::uint64_t done = copyBulk(target + targetBit / byteBits, source, sourceBit, count);
            targetBit += done;
            sourceBit += done;
            count -= done;
        }
        const std::uint64_t part = std::min(count, byteBits - within);
        if (part > 0) {
            std::uint8_t& byte = target[targetBit / byteBits];
            byte = static_cast<std::uint8_t>(byte | bitsAt(source, sourceBit, part) << within);
        }
        targetBit += part;
        sourceBit += part;
        count -= part;
    }
}

void setBits(std::uint8_t* map, std::uint64_t firstBit, std::uint64_t count) {
    assignBits(map, firstBit, count, 0xff,
               [](unsigned byte, unsigned mask) { return static_cast<std::uint8_t>(byte | mask); });
}

void clearBits(std::uint8_t* map, std::uint64_t firstBit, std::uint64_t count) {
    assignBits(map, firstBit, count, 0,
               [](unsigned byte, unsigned mask) { return static_cast<std::uint8_t>(byte & ~mask); });
}

void clearMap(std::uint8_t* map, std::size_t bytes) {
    constexpr std::size_t pageBytes = 4096;
    for (std::size_t offset = 0; offset < bytes; offset += pageBytes) {
        std::uint8_t* const page = map + offset;
        const std::size_t length = std::min(pageBytes, bytes - offset);
        const bool isClear = *page == 0 && std::memcmp(page, page + 1, length - 1) == 0;
        if (!isClear) {
            std::memset(page, 0, length);
        }
    }
}

std::uint64_t countClearBits(const std::uint8_t* map, std::uint64_t bytes) {
    return std::accumulate(map, map + bytes, std::uint64_t{0}, [](std::uint64_t sum, std::uint8_t byte) {
        return sum + static_cast<std::uint64_t>(std::popcount(static_cast<std::uint8_t>(~byte)));
    });
}

} // namespace agent::core::fs
