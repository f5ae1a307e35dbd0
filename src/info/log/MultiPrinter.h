#pragma once

#include "info/log/PrinterFunction.h"

#include <vector>

namespace agent::info {

/// Prints each message through all of its printers, in order, and skips empty ones.
/// Owns:    the printer functions.
/// Threads: the logger calls `print` under its mutex.
/// Fails:   `print` throws what the first failing printer throws; the later printers don't get the message.
class MultiPrinter {
public:
    explicit MultiPrinter(std::vector<PrinterFunction> printers);
    void print(const std::string& message, int level, LogTime time);

private:
    std::vector<PrinterFunction> printers;
};

} // namespace agent::info
