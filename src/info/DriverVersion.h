#pragma once

#include <array>
#include <cstddef>
#include <string>

namespace agent::info {

/// The oldest driver that this agent can work with.
inline constexpr const char* minimumDriverVersion = "0.9.16";
/// A shorter text doesn't count as a version: "0.10" does, "1.0" doesn't.
inline constexpr std::size_t shortestDriverVersion = 4;

/// Four numbers, compared from the first to the last.
using DriverVersion = std::array<int, 4>;

/// Parses up to four numbers separated by dots. Missing and unreadable numbers count as 0.
DriverVersion scanDriverVersion(const std::string& text);

} // namespace agent::info
