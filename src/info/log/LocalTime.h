#pragma once

#include "info/log/PrinterFunction.h"

#include <ctime>
#include <optional>

namespace agent::info {

/// The moment of a broken-down local time. Nothing if there is no such moment, or if it lies outside the
/// nearly 600 years around the epoch that a LogTime can hold; dates in file names and lines may be anything.
std::optional<LogTime> toLogTime(std::tm broken);

} // namespace agent::info
