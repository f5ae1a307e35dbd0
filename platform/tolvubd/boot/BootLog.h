#pragma once

#include "SystemLog.h"

#include <string>

namespace tolvubd {

/// A line for the system log and for the kernel's, as the first isn't there yet when a machine starts and
/// not any more when it stops. Never waits, never fails.
void report(Severity severity, const std::string& text) noexcept;

} // namespace tolvubd
