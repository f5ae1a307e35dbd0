#pragma once

#include <cstdint>
#include <ctime>
#include <string>

/// How numbers and times are shown: one way for people, another for programs.
namespace tools {

/// Bytes in decimal units, as the makers of disks use them: "812 bytes", "1.5 MB", "2.0 TB".
std::string sizeText(std::uint64_t bytes);
/// "0.3 s", "4 min 10 s", "2 h 5 min".
std::string durationText(double seconds);
/// Local time, "2026-03-04 10:54:56".
std::string localText(std::time_t moment);
/// UTC, "2026-03-04T09:54:56Z".
std::string utcText(std::time_t moment);
/// Makes text from outside safe to print: one line, no control characters, and not too long.
std::string plain(const std::string& text);

} // namespace tools
