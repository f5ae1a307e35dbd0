#pragma once

#include <cstdint>
#include <string>

namespace agent::info {

/// Formats a number of bytes for people: 1536 is "1.5 KiB". Six significant digits, units up to EiB.
std::string formatHumanSize(std::uint64_t bytes);

} // namespace agent::info
