#pragma once

#include "info/log/Logger.h"

#include <cstdarg>

namespace agent::ordak {

/// Logs a message of the HTTP library: a printf-like format, with or without a newline at the end.
[[gnu::format(printf, 2, 0)]] void logLibraryMessage(info::Logger& logger, const char* format,
                                                     va_list arguments);

} // namespace agent::ordak
