#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace tolvubd {

/// Takes the words of a table, from the first unit to the last, without a gap.
using TableWriter = std::function<void(std::uint64_t firstUnit, std::span<const std::uint64_t> words)>;

/// Compares two captures of `size` bytes unit by unit, and returns how many units differ. What both have as a
/// hole isn't read.
std::uint64_t compareCaptures(const std::string& before, const std::string& after, std::uint64_t size,
                              const TableWriter& write);

} // namespace tolvubd
