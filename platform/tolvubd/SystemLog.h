#pragma once

#include <string>

namespace tolvubd {

enum class Severity { error = 3, warning = 4, info = 6 };

/// Sends a line to the system log under the name "tolvubd", or drops it: never waits, never fails.
///
/// Not through syslog(3): that shares its name and its connection with the program that uses this library.
void logLine(Severity severity, const std::string& text) noexcept;

} // namespace tolvubd
