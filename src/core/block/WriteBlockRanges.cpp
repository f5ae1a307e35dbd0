#include "core/block/WriteBlockRanges.h"

#include "common/PosixError.h"
#include "core/block/BitRunTable.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

namespace agent {

namespace {

/// Writes bytes whose first bit is the most significant one. Reverses their bits unless `msbFirst` is set.
class BitmapStream {
public:
    BitmapStream(std::ostream& out, bool msbFirst) : out(out), msbFirst(msbFirst) { errno = 0; }

    void seek(std::uint64_t position) { check(out.seekp(static_cast<std::streamoff>(position))); }

    void put(std::uint8_t byte) {
        check(out.put(static_cast<char>(msbFirst ? byte : bitReversalTable[byte])));
    }

    /// Writes `count` bytes of 0xff.
    void putFull(std::uint64_t count) {
        std::array<char, 4096> full{};
        full.fill(static_cast<char>(0xff));
        while (count > 0) {
            const std::uint64_t part = std::min<std::uint64_t>(count, full.size());
            check(out.write(full.data(), static_cast<std::streamsize>(part)));
            count -= part;
        }
    }

private:
    static void check(const std::ostream& stream) {
        if (!stream) {
            throw PosixError("Failed to write block ranges", errno);
        }
    }

    std::ostream& out;
    bool msbFirst;
};

/// A byte with the `count` most significant bits set, or with all bits set if `count` is over 8.
std::uint8_t highBits(std::uint64_t count) {
    return static_cast<std::uint8_t>(~(0xffU >> std::min<std::uint64_t>(count, 8)));
}

class RangeWriter {
public:
    RangeWriter(BitmapStream& stream, std::uint64_t baseOffset) : stream(stream), baseOffset(baseOffset) {}

    void write(const BlockRange& range) {
        const std::uint64_t shift = range.start % 8;
        const std::uint64_t firstByte = range.start / 8;
        const std::uint64_t endBits = range.end() % 8;
        const std::uint64_t byteCount = (shift + range.length) / 8 + (endBits != 0 ? 1 : 0);
        seekTo(firstByte);
        if (byteCount == 0) {
            return;
        }
        if (byteCount == 1) {
            current |= static_cast<std::uint8_t>(highBits(range.length) >> shift);
            stream.put(current);
        } else {
            stream.put(static_cast<std::uint8_t>(current | 0xffU >> shift));
            stream.putFull(byteCount - 2);
            current = highBits(endBits);
            stream.put(current);
        }
        lastByte = firstByte + byteCount - 1;
    }

private:
    /// Seeks to `byte`. If that is the last byte written, `current` keeps its bits; otherwise it becomes 0.
    void seekTo(std::uint64_t byte) {
        if (byte < lastByte) {
            throw std::runtime_error("Overlapping range not supported");
        }
        if (byte > lastByte) {
            current = 0;
        }
        stream.seek(byte + baseOffset);
    }

    BitmapStream& stream;
    std::uint64_t baseOffset;
    std::uint64_t lastByte = 0;
    std::uint8_t current = 0; ///< the content of the last byte, most significant bit first
};

} // namespace

std::uint64_t writeBlockRanges(std::ostream& out, const std::set<BlockRange>& ranges, std::uint64_t totalBits,
                               std::uint64_t baseOffset, bool msbFirst) {
    std::uint64_t bytes = totalBits / 8;
    bytes += bytes % 8 != 0 ? 1 : 0;
    BitmapStream stream(out, msbFirst);
    stream.seek(bytes - 1);
    stream.put(0);
    RangeWriter writer(stream, baseOffset);
    std::uint64_t total = 0;
    for (const BlockRange& range : ranges) {
        writer.write(range);
        total += range.length;
    }
    return total;
}

} // namespace agent
