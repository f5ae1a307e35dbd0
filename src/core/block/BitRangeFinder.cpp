#include "core/block/BitRangeFinder.h"

#include "core/block/BitRunTable.h"

#include <bit>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace agent {

namespace {

constexpr std::uint64_t allOnes = ~std::uint64_t{0};
constexpr std::uint64_t bitsPerWord = 64;
constexpr std::uint64_t wordsPerStride = 8; ///< a cache line

/// Loads a little-endian word; the address needs no alignment.
std::uint64_t loadWord(const std::uint8_t* bitmap, std::uint64_t index) {
    static_assert(std::endian::native == std::endian::little);
    std::uint64_t word = 0;
    std::memcpy(&word, bitmap + index * sizeof(word), sizeof(word));
    return word;
}

bool strideIs(const std::uint8_t* bitmap, std::uint64_t index, std::uint64_t value) {
    std::uint64_t difference = 0;
    for (std::uint64_t offset = 0; offset < wordsPerStride; ++offset) {
        difference |= loadWord(bitmap, index + offset) ^ value;
    }
    return difference == 0;
}

/// The first word from `index` on that isn't `value`, or `words`.
std::uint64_t skipWords(const std::uint8_t* bitmap, std::uint64_t index, std::uint64_t words,
                        std::uint64_t value) {
    if (loadWord(bitmap, index) != value) {
        return index;
    }
    while (words - index >= wordsPerStride && strideIs(bitmap, index, value)) {
        index += wordsPerStride;
    }
    while (index < words && loadWord(bitmap, index) == value) {
        ++index;
    }
    return index;
}

/// Joins the set bits of words and bytes, given in ascending order, to ranges.
class RunCollector {
public:
    /// Whether the last bit added was set, so that its run may continue.
    [[nodiscard]] bool isRunning() const noexcept { return running; }

    /// The word's first bit is its least significant one.
    void addWord(std::uint64_t base, std::uint64_t word) {
        const bool last = word >> (bitsPerWord - 1) != 0;
        if (running) {
            const int continued = std::countr_one(word);
            extend(static_cast<std::uint64_t>(continued));
            word &= word + 1; // clears the lowest run if that begins at bit 0
        }
        while (word != 0) {
            const int first = std::countr_zero(word);
            const int length = std::countr_one(word >> static_cast<unsigned>(first));
            append(base + static_cast<std::uint64_t>(first), static_cast<std::uint64_t>(length));
            word &= word + (word & (~word + 1)); // clears the lowest run
        }
        running = last;
    }

    void addByte(std::uint64_t base, const BitRuns& byte) {
        std::size_t run = 0;
        if (running && byte.firstBitSet != 0) {
            extend(byte.runs[run++].runLength);
        }
        for (; run < byte.runCount; ++run) {
            append(base + byte.runs[run].runStart, byte.runs[run].runLength);
        }
        running = byte.lastBitSet != 0;
    }

    void extend(std::uint64_t bits) { ranges.back().length += bits; }

    std::vector<BlockRange> take() { return std::move(ranges); }

private:
    void append(std::uint64_t start, std::uint64_t length) { ranges.push_back({start, length}); }

    std::vector<BlockRange> ranges;
    bool running = false;
};

} // namespace

std::vector<BlockRange> BitRangeFinder::findRanges(const void* map, std::uint64_t count) const {
    if (map == nullptr) {
        throw std::invalid_argument("Bad bitmap pointer passed to findRanges function");
    }
    if (count == 0) {
        throw std::invalid_argument("Bad bitmap size passed to findRanges function (size must be > 0)");
    }
    return lookupAlgorithm(static_cast<const std::uint8_t*>(map), count);
}

// Whole words come first. Words that neither begin nor end a run are skipped at once; the bits of the others
// are brought into order and searched for runs. Fewer than 64 bits remain. They are looked up byte by byte,
// so that no byte past the last valid bit is read.
std::vector<BlockRange> BitRangeFinder::lookupAlgorithm(const std::uint8_t* bitmap,
                                                        std::uint64_t bits) const {
    const std::uint64_t flip = targetValue ? 0 : allOnes;
    const std::uint64_t words = bits / bitsPerWord;
    RunCollector runs;
    std::uint64_t index = 0;
    while (index < words) {
        const std::uint64_t next = skipWords(bitmap, index, words, runs.isRunning() ? ~flip : flip);
        if (runs.isRunning()) {
            runs.extend((next - index) * bitsPerWord);
        }
        if (next < words) {
            const std::uint64_t word = loadWord(bitmap, next);
            runs.addWord(next * bitsPerWord, (msbFirst ? reverseBitsOfBytes(word) : word) ^ flip);
        }
        index = next + 1;
    }
    for (std::uint64_t base = words * bitsPerWord; base < bits; base += 8) {
        const std::uint8_t byte = bitmap[base / 8];
        const std::uint64_t padding = bits - base < 8 ? 0xffU >> (bits - base) : 0;
        const std::uint64_t ordered = (msbFirst ? byte : bitReversalTable[byte]) ^ flip;
        runs.addByte(base, bitRunTable[static_cast<std::uint8_t>(ordered & ~padding)]);
    }
    return runs.take();
}

} // namespace agent
