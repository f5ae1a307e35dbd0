#pragma once

#include "Table.h"

#include <cstdint>

namespace tolvubd {

/// How many of the last snapshots a forecast looks at.
inline constexpr std::size_t needsKept = 8;

/// Records how many bytes a snapshot has preserved.
void noteNeed(Layers& layers, std::uint64_t bytes);
/// The bytes that the next snapshot is expected to preserve: 1.5 times the largest of the recorded needs. 0
/// if there is none yet.
std::uint64_t forecastNeed(const Layers& layers);

} // namespace tolvubd
