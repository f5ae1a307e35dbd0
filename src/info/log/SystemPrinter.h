#pragma once

#include "info/log/PrinterFunction.h"

namespace agent::info {

/// Writes each message to the system log, under the ident "tolvubackupagent". The connection is opened and
/// closed for every message, so that a system log that is restarted is found again.
class SystemPrinter {
public:
    /// Always true: the system log has no way to tell.
    bool print(const std::string& message, int level, LogTime time);
};

} // namespace agent::info
