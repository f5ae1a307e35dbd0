#pragma once

#include "info/log/PrinterFunction.h"

namespace agent::info {

/// Writes each message to the system log, under the ident "tolvubackupagent". It opens and closes the
/// connection for every message, so that it still works after a restart of the system log.
/// Owns:    nothing between two messages.
/// Threads: any thread may call it; both loggers use one printer at the same time.
/// Fails:   never; a message that can't be written is lost.
class SystemPrinter {
public:
    /// Always returns true: syslog() reports no errors.
    bool print(const std::string& message, int level, LogTime time);
};

} // namespace agent::info
