#include "mapper/Forecast.h"

#include <algorithm>

namespace tolvubd {

void recordPreserved(Layers& layers, std::uint64_t bytes) {
    layers.preservedBytes.push_back(bytes);
    if (layers.preservedBytes.size() > forecastSnapshots) {
        layers.preservedBytes.erase(layers.preservedBytes.begin(),
                                    layers.preservedBytes.end() - forecastSnapshots);
    }
}

std::uint64_t forecastNeed(const Layers& layers) {
    const auto largest = std::ranges::max_element(layers.preservedBytes);
    return largest == layers.preservedBytes.end() ? 0 : *largest + *largest / 2;
}

} // namespace tolvubd
