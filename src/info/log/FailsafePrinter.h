#pragma once

#include "info/log/PrinterFunction.h"

#include <vector>

namespace agent::info {

/// Prints each message through the first of its printers that succeeds. If none does, one line on standard
/// error says so, and the message is lost.
/// Owns:    the printer functions.
/// Threads: the logger calls `print` under its mutex.
/// Fails:   never.
class FailsafePrinter {
public:
    explicit FailsafePrinter(std::vector<FalliblePrinterFunction> printers);
    void print(const std::string& message, int level, LogTime time);

private:
    std::vector<FalliblePrinterFunction> printers;
};

} // namespace agent::info
