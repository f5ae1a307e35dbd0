#include "zephane/socket/FilterChain.h"

#include "zephane/wire/Limits.h"

#include <algorithm>

namespace zephane {

void FilterChain::feed(std::span<const std::uint8_t> piece) {
    if (filters.empty()) {
        unfiltered = piece;
    } else {
        filters.front()->feed(piece);
    }
}

std::span<const std::uint8_t> FilterChain::next() {
    if (filters.empty()) {
        return nextUnfiltered();
    }
    // Calls the last filter first. Data that a filter returns is fed to the filter after it, which had
    // nothing left.
    std::size_t place = filters.size() - 1;
    for (;;) {
        const auto piece = filters[place]->next();
        if (piece.empty()) {
            if (place == 0) {
                return {};
            }
            --place;
        } else if (place == filters.size() - 1) {
            return piece;
        } else {
            filters[++place]->feed(piece);
        }
    }
}

std::span<const std::uint8_t> FilterChain::nextUnfiltered() {
    const auto piece = unfiltered.first(std::min(unfiltered.size(), wire::frameBytes));
    unfiltered = unfiltered.subspan(piece.size());
    return piece;
}

} // namespace zephane
