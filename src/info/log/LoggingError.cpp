#include "info/log/LoggingError.h"

#include "common/StandardError.h"

#include <string>

namespace agent::info {

void reportLoggingError(std::string_view text) {
    constexpr std::size_t longest = 2000; // writeStandardError writes such a line completely
    writeStandardError("~~Logging Error~~ " + std::string(text.substr(0, longest)) + '\n');
}

} // namespace agent::info
