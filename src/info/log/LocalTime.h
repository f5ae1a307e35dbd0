#pragma once

#include "info/log/PrinterFunction.h"

#include <ctime>
#include <optional>

namespace agent::info {

/// Converts a broken-down local time. Returns nothing if there is no such time, or if it lies outside the
/// nearly 600 years around the epoch that a LogTime can hold: file names and log lines may contain any date.
std::optional<LogTime> toLogTime(std::tm broken);

} // namespace agent::info
