#include "Strata.h"

#include <algorithm>
#include <optional>

namespace audit {

namespace {

using agent::core::block::BlockRangeIterator;
using agent::core::block::IBlockRangeProvider;
using restore::pageBytes;

/// Walks along one layer.
class Cursor {
public:
    explicit Cursor(const IBlockRangeProvider& layer) : position(layer.begin()), end(layer.end()) {}

    /// Whether the layer has this block. Lowers `next` to the block at which the answer changes, if that is
    /// nearer.
    bool covers(std::uint64_t block, std::uint64_t& next) {
        while (!(position == end) && (position->end() <= block || position->empty())) {
            ++position;
        }
        if (position == end) {
            return false;
        }
        const bool isInside = position->start <= block;
        next = std::min(next, isInside ? position->end() : position->start);
        return isInside;
    }

private:
    BlockRangeIterator position;
    BlockRangeIterator end;
};

} // namespace

/// Walks all layers side by side. Counts only pages that lie completely in one stratum, and skips the
/// snapshot driver's own files.
void Strata::walk(const Visit& visit) const {
    Cursor unused(*layers.unused);
    std::optional<Cursor> unchanged;
    if (layers.unchanged) {
        unchanged.emplace(*layers.unchanged);
    }
    std::vector<Cursor> files;
    files.reserve(layers.files.size());
    for (const Layer& file : layers.files) {
        files.emplace_back(*file);
    }
    for (std::uint64_t block = 0, next = 0; block < blocks; block = next) {
        next = blocks;
        bool isDriverFile = false;
        for (Cursor& file : files) {
            isDriverFile = file.covers(block, next) || isDriverFile;
        }
        const bool isUnused = unused.covers(block, next);
        const bool isUnchanged = unchanged && unchanged->covers(block, next);
        const std::uint64_t first = (block * blockSize + pageBytes - 1) / pageBytes;
        const std::uint64_t end = next * blockSize / pageBytes;
        if (!isDriverFile && (isUnused || isUnchanged) && first < end) {
            visit(isUnused ? Stratum::unused : Stratum::unchanged, first, end - first);
        }
    }
}

Strata::Counts Strata::count() const {
    Counts counts{};
    walk([&](Stratum stratum, std::uint64_t /*first*/, std::uint64_t pages) {
        counts.at(indexOf(stratum)) += pages;
    });
    return counts;
}

Strata::Numbers Strata::locate(const Numbers& drawn) const {
    Numbers places;
    Counts passed{};
    walk([&](Stratum stratum, std::uint64_t first, std::uint64_t pages) {
        const std::size_t index = indexOf(stratum);
        const std::vector<std::uint64_t>& numbers = drawn.at(index);
        std::uint64_t& before = passed.at(index);
        for (std::size_t next = places.at(index).size();
             next < numbers.size() && numbers[next] < before + pages; ++next) {
            places.at(index).push_back(first + (numbers[next] - before));
        }
        before += pages;
    });
    return places;
}

} // namespace audit
