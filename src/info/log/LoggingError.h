#pragma once

#include <string_view>

namespace agent::info {

/// Problems of logging itself have no log to go to: they are one line on standard error each, if anybody
/// reads there. Loggers call this with their mutex held, so it waits for nobody.
void reportLoggingError(std::string_view text);

} // namespace agent::info
