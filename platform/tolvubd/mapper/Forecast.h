#pragma once

#include "Table.h"

#include <cstdint>

namespace tolvubd {

/// How many of the last snapshots a forecast looks at.
inline constexpr std::size_t needsKept = 8;

/// Notes what a snapshot came to preserve, in bytes.
void noteNeed(Layers& layers, std::uint64_t bytes);
/// Bytes that the next snapshot will need to preserve: half more than the largest of the last ones. 0 when
/// there was none yet.
std::uint64_t forecastNeed(const Layers& layers);

} // namespace tolvubd
