#include "BlockComparison.h"

#include "os/AlignedBuffer.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>
#include <stdexcept>

namespace restore::check {

namespace {

constexpr std::size_t comparedAtOnce = 4UL << 20U;

/// Zeroes what isn't compared, so that it is equal on both sides.
void blank(std::span<std::byte> piece, std::uint64_t begin, const std::vector<ByteRange>& excluded) {
    const auto first = std::ranges::upper_bound(excluded, begin, {}, &ByteRange::end);
    const std::uint64_t end = begin + piece.size();
    for (auto range = first; range != excluded.end() && range->begin < end; ++range) {
        const std::uint64_t from = std::max(range->begin, begin);
        std::ranges::fill(piece.subspan(from - begin, std::min(range->end(), end) - from), std::byte{});
    }
}

/// One piece of the volume, from the image and from the snapshot.
class Pieces {
public:
    Pieces(IImage& image, IImage& snapshot) : image(image), snapshot(snapshot) {}

    /// If the image can't be read, stores the reason in `result`. Throws std::runtime_error if the snapshot
    /// can't be read.
    void read(std::uint64_t at, std::size_t count, Comparison& result) {
        size = count;
        try {
            image.read({mine.data(), count}, at);
        } catch (const std::runtime_error& error) {
            result.unreadable = error.what();
            return;
        }
        snapshot.read({theirs.data(), count}, at);
    }

    void exclude(std::uint64_t at, const std::vector<ByteRange>& ranges) {
        blank({mine.data(), size}, at, ranges);
        blank({theirs.data(), size}, at, ranges);
    }

    /// The number of equal bytes before the first difference.
    [[nodiscard]] std::size_t equalBytes() const {
        if (std::memcmp(mine.data(), theirs.data(), size) == 0) {
            return size;
        }
        const std::span<const std::byte> one(mine.data(), size);
        const std::span<const std::byte> other(theirs.data(), size);
        return static_cast<std::size_t>(std::ranges::mismatch(one, other).in1 - one.begin());
    }

private:
    IImage& image;
    IImage& snapshot;
    os::AlignedBuffer mine{comparedAtOnce, pageBytes};
    os::AlignedBuffer theirs{comparedAtOnce, pageBytes};
    std::size_t size = 0;
};

} // namespace

Comparison compareBlocks(IImage& image, IImage& snapshot, const RestorePlan& plan,
                         const std::vector<ByteRange>& excluded, const CompareProgress& progress) {
    Pieces pieces(image, snapshot);
    Comparison result;
    for (const ByteRange& range : plan.used) {
        for (std::uint64_t at = range.begin; at < range.end();) {
            const std::size_t count = std::min<std::uint64_t>(comparedAtOnce, range.end() - at);
            pieces.read(at, count, result);
            if (!result.unreadable.empty()) {
                return result;
            }
            pieces.exclude(at, plan.unusedPageParts);
            pieces.exclude(at, excluded);
            if (const std::size_t equal = pieces.equalBytes(); equal < count) {
                result.difference = at + equal;
                return result;
            }
            at += count;
            result.compared += count;
            progress(result.compared, plan.usedBytes);
        }
    }
    return result;
}

} // namespace restore::check
