#pragma once

#include "info/log/PrinterFunction.h"

namespace agent::info {

/// Prints only the messages that its filter accepts.
/// Owns:    both functions.
/// Threads: the logger calls `print` under its mutex.
/// Fails:   `print` throws what the filter and the printer throw; std::bad_function_call if the filter is
///          empty.
class FilteredPrinter {
public:
    FilteredPrinter(FilterFunction filter, PrinterFunction printer);
    void print(const std::string& message, int level, LogTime time);

private:
    FilterFunction filter;
    PrinterFunction printer;
};

} // namespace agent::info
