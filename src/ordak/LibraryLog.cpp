#include "ordak/LibraryLog.h"

#include <cstdio>
#include <string>

namespace agent::ordak {

void logLibraryMessage(info::Logger& logger, const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        return;
    }
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back(); // the terminating zero
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    info::LogEntry(logger, info::level::debug) << "(libmicrohttpd) " << text;
}

} // namespace agent::ordak
