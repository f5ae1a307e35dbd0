#pragma once

#include <iostream>
#include <string_view>

namespace agent::info {

/// Problems of logging itself have no log to go to: they are one line on standard error each.
inline void reportLoggingError(std::string_view text) {
    std::cerr << "~~Logging Error~~ " << text << '\n' << std::flush;
}

} // namespace agent::info
