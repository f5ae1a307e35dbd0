#include "info/log/LogEntry.h"

#include "info/log/Logger.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace agent::info {

LogEntry::LogEntry(Logger& logger, int level)
    : logger(&logger), level(std::clamp(level, level::critical, level::debug)) {}

LogEntry::LogEntry(Logger& logger, int level, const Reason& reason) : LogEntry(logger, level, &reason) {}

LogEntry::LogEntry(Logger& logger, int level, const Reason* reason) : LogEntry(logger, level) {
    this->reason = reason;
}

// A stream base can't be copied; the copy gets a fresh one.
LogEntry::LogEntry(const LogEntry& other)
    : std::basic_ios<char>(), std::ostringstream(), logger(other.logger), level(other.level) {}

LogEntry::~LogEntry() {
    try {
        if (good() && tellp() > 0) {
            *this << (reason == nullptr ? std::string() : markOf(*reason)) << '\n';
            flush();
        }
    } catch (...) { // NOLINT(bugprone-empty-catch): a message that can't be printed must not end the agent
    }
}

LogEntry& LogEntry::format(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    formatList(format, arguments);
    va_end(arguments);
    return *this;
}

LogEntry& LogEntry::formatList(const char* format, va_list arguments) {
    va_list measuring;
    va_copy(measuring, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measuring);
    va_end(measuring);
    if (length < 0) {
        setstate(failbit);
        return *this;
    }
    std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
    if (std::vsnprintf(buffer.data(), buffer.size(), format, arguments) != length) {
        setstate(badbit);
        return *this;
    }
    std::ostringstream::write(buffer.data(), length);
    return *this;
}

void LogEntry::flush() {
    if (!logger->hasPrinter() || !good()) {
        return;
    }
    const std::string message = std::move(*this).str();
    str({});
    logger->print(message, level);
}

} // namespace agent::info
