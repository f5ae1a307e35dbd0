#pragma once

#include <string_view>

namespace agent::info {

/// Reports a failure of logging itself, which can't be logged, as one line on standard error. Loggers call
/// this while they hold their mutex, so it never blocks: if standard error has no room, the line is lost.
void reportLoggingError(std::string_view text);

} // namespace agent::info
