#include "info/log/Logger.h"

#include "info/log/LogTurn.h"

#include <cstdarg>
#include <utility>

namespace agent::info {

Logger::Logger(PrinterFunction printer, LevelFunction wanted)
    : printer(std::move(printer)), wanted(std::move(wanted)), mutex(std::make_shared<os::Mutex>()) {}

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
    const LogTurn* const turn = LogTurn::ofThisThread();
    if (!printer || (turn != nullptr && isEnabled(level) && !turn->await())) {
        return;
    }
    const os::Lock lock(*mutex);
    printer(message, level, std::chrono::system_clock::now());
}

bool Logger::isEnabled(int level) const {
    return hasPrinter() && (!wanted || wanted(level));
}

} // namespace agent::info
