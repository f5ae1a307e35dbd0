#include "info/log/LoggingError.h"

#include "common/StandardError.h"

#include <string>

namespace agent::info {

void reportLoggingError(std::string_view text) {
    constexpr std::size_t longest = 2000; // a line that standard error takes whole
    writeStandardError("~~Logging Error~~ " + std::string(text.substr(0, longest)) + '\n');
}

} // namespace agent::info
