#include "info/log/LoggingError.h"

#include "common/StandardError.h"

#include <string>

namespace agent::info {

void reportLoggingError(std::string_view text) {
    constexpr std::size_t maxBytes = 2000; // writeStandardError writes such a line completely
    writeStandardError("~~Logging Error~~ " + std::string(text.substr(0, maxBytes)) + '\n');
}

} // namespace agent::info
