#pragma once

#include "info/log/PrinterFunction.h"

namespace agent::info {

/// Prints only the messages that its filter accepts. An empty filter throws std::bad_function_call at the
/// first message.
class FilteredPrinter {
public:
    FilteredPrinter(FilterFunction filter, PrinterFunction printer);
    void print(const std::string& message, int level, LogTime time);

private:
    FilterFunction filter;
    PrinterFunction printer;
};

} // namespace agent::info
