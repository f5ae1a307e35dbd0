#pragma once

#include <array>
#include <cstddef>
#include <string>

namespace agent::info {

/// The oldest driver that this agent can work with.
inline constexpr const char* minimumDriverVersion = "0.9.16";
/// A text of fewer characters is no version: "0.10" is one, "1.0" is not.
inline constexpr std::size_t shortestDriverVersion = 4;

/// Four numbers, compared first to last.
using DriverVersion = std::array<int, 4>;

/// Reads numbers between dots. What follows the last one that can be read counts as 0.
DriverVersion scanDriverVersion(const std::string& text);

} // namespace agent::info
