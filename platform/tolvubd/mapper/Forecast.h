#pragma once

#include "Table.h"

#include <cstdint>

namespace tolvubd {

/// How many of the last snapshots a forecast looks at.
inline constexpr std::size_t forecastSnapshots = 8;

/// Records how many bytes a snapshot has preserved.
void recordPreserved(Layers& layers, std::uint64_t bytes);
/// The bytes that the next snapshot is expected to preserve: 1.5 times the most that a recorded snapshot
/// preserved. 0 if none is recorded yet.
std::uint64_t forecastNeed(const Layers& layers);

} // namespace tolvubd
