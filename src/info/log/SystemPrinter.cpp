#include "info/log/SystemPrinter.h"

#include "info/log/LogLevel.h"

#include <syslog.h>

namespace agent::info {

namespace {

int priorityOf(int level) {
    switch (level) {
    case level::critical:
        return LOG_CRIT;
    case level::error:
        return LOG_ERR;
    case level::warning:
        return LOG_WARNING;
    case level::info:
        return LOG_INFO;
    default:
        return LOG_DEBUG;
    }
}

} // namespace

bool SystemPrinter::print(const std::string& message, int level, LogTime /*time*/) {
    openlog("tolvubackupagent", LOG_PID | LOG_CONS | LOG_NDELAY, LOG_USER);
    syslog(priorityOf(level), "%s", message.c_str());
    closelog();
    return true;
}

} // namespace agent::info
