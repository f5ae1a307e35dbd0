#pragma once

#include "SystemLog.h"

#include <string>

namespace tolvubd {

/// Writes a line to the system log and to the kernel log, because there is no system log when the machine
/// begins to start and when it has nearly stopped. Never waits, never fails.
void report(Severity severity, const std::string& text) noexcept;

} // namespace tolvubd
