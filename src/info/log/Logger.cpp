#include "info/log/Logger.h"

#include "info/log/LogGate.h"

#include <cstdarg>
#include <utility>

namespace agent::info {

Logger::Logger(PrinterFunction printer, LevelFunction isLevelEnabled)
    : printer(std::move(printer)),
      isLevelEnabled(std::move(isLevelEnabled)),
      mutex(std::make_shared<os::Mutex>()) {}

LogEntry Logger::log(int level, const char* format, ...) {
    LogEntry entry(*this, level);
    va_list arguments;
    va_start(arguments, format);
    entry.formatList(format, arguments);
    va_end(arguments);
    entry << '\n';
    entry.flush();
    return entry;
}

LogEntry Logger::log(int level, const Reason& reason, const char* format, ...) {
    LogEntry entry(*this, level);
    va_list arguments;
    va_start(arguments, format);
    entry.formatList(format, arguments);
    va_end(arguments);
    entry << markOf(reason) << '\n';
    entry.flush();
    return entry;
}

void Logger::print(const std::string& message, int level) const {
    const LogGate* const gate = LogGate::ofThisThread();
    if (!printer || (gate != nullptr && isEnabled(level) && !gate->waitForTurn())) {
        return;
    }
    const os::Lock lock(*mutex);
    printer(message, level, std::chrono::system_clock::now());
}

bool Logger::isEnabled(int level) const {
    return hasPrinter() && (!isLevelEnabled || isLevelEnabled(level));
}

} // namespace agent::info
