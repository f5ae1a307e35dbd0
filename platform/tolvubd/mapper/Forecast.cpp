#include "mapper/Forecast.h"

#include <algorithm>

namespace tolvubd {

void noteNeed(Layers& layers, std::uint64_t bytes) {
    layers.needs.push_back(bytes);
    if (layers.needs.size() > needsKept) {
        layers.needs.erase(layers.needs.begin(), layers.needs.end() - needsKept);
    }
}

std::uint64_t forecastNeed(const Layers& layers) {
    const auto largest = std::ranges::max_element(layers.needs);
    return largest == layers.needs.end() ? 0 : *largest + *largest / 2;
}

} // namespace tolvubd
