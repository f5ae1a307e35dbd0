#pragma once

#include "info/log/PrinterFunction.h"

namespace agent::info {

/// Writes each message to standard output. A reader of the output that has gone away is no reason to stop:
/// neither an error nor SIGPIPE comes of it.
class ScreenPrinter {
public:
    void print(const std::string& message, int level, LogTime time);
};

} // namespace agent::info
