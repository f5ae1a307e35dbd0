#include "Pieces.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace restore {

namespace {

constexpr std::uint64_t largestGap = 64UL << 10U;

/// Whether a range that begins at `begin` can be read together with the piece.
bool mayJoin(const Piece& piece, std::uint64_t begin) {
    return begin - piece.whole.end() <= largestGap && begin - piece.whole.begin < largestPiece;
}

void join(Piece& piece, const ByteRange& part) {
    piece.parts.push_back(part);
    piece.whole.length = part.end() - piece.whole.begin;
}

} // namespace

std::uint64_t Piece::used() const {
    std::uint64_t sum = 0;
    for (const ByteRange& part : parts) {
        sum += part.length;
    }
    return sum;
}

void Piece::clearGaps(std::byte* bytes) const {
    std::uint64_t filled = whole.begin;
    for (const ByteRange& part : parts) {
        std::memset(bytes + (filled - whole.begin), 0, part.begin - filled);
        filled = part.end();
    }
}

void forEachPiece(const std::vector<ByteRange>& ranges, std::uint64_t begin, std::uint64_t end,
                  const std::function<void(const Piece& piece)>& work) {
    Piece piece;
    const auto handOver = [&] {
        if (!piece.parts.empty()) {
            work(std::exchange(piece, {}));
        }
    };
    auto range =
        std::ranges::partition_point(ranges, [&](const ByteRange& each) { return each.end() <= begin; });
    for (; range != ranges.end() && range->begin < end; ++range) {
        std::uint64_t at = std::max(range->begin, begin);
        const std::uint64_t last = std::min(range->end(), end);
        while (at < last) {
            if (piece.parts.empty() || !mayJoin(piece, at)) {
                handOver();
                piece.whole = {at, 0};
            }
            const ByteRange part{at, std::min(last, piece.whole.begin + largestPiece) - at};
            join(piece, part);
            at = part.end();
        }
    }
    handOver();
}

std::uint64_t bytesBetween(const std::vector<ByteRange>& ranges, std::uint64_t begin, std::uint64_t end) {
    std::uint64_t sum = 0;
    for (const ByteRange& range : ranges) {
        const std::uint64_t first = std::max(range.begin, begin);
        const std::uint64_t last = std::min(range.end(), end);
        sum += first < last ? last - first : 0;
    }
    return sum;
}

} // namespace restore
