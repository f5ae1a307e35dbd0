#pragma once

#include "info/log/Logger.h"

#include <cstdarg>

namespace agent::ordak {

/// Takes a message of the HTTP library, printf-like and with or without a newline, into the log.
[[gnu::format(printf, 2, 0)]] void logLibraryMessage(info::Logger& logger, const char* format,
                                                     va_list arguments);

} // namespace agent::ordak
