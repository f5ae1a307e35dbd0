#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace tolvubd {

/// Receives the words of a CoW file's table, from the first unit to the last, without gaps.
using TableWriter = std::function<void(std::uint64_t firstUnit, std::span<const std::uint64_t> words)>;

/// Compares two captures of `size` bytes unit by unit, and returns how many units have changed: those that
/// differ, and those that are `fresh`. Holes that both captures have aren't read.
std::uint64_t compareCaptures(const std::string& before, const std::string& after, std::uint64_t size,
                              const std::vector<bool>& fresh, const TableWriter& write);

} // namespace tolvubd
