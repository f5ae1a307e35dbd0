#pragma once

#include <string>

namespace tolvubd {

enum class Severity { error = 3, warning = 4, info = 6 };

/// Sends a line to the system log under the name "tolvubd". If that fails or would block, the line is
/// dropped.
///
/// Doesn't use syslog(3), whose name and connection belong to the program that uses this library.
void logLine(Severity severity, const std::string& text) noexcept;

} // namespace tolvubd
