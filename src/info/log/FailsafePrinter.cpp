#include "info/log/FailsafePrinter.h"

#include "info/log/LoggingError.h"

#include <algorithm>
#include <utility>

namespace agent::info {

FailsafePrinter::FailsafePrinter(std::vector<FalliblePrinterFunction> printers)
    : printers(std::move(printers)) {}

void FailsafePrinter::print(const std::string& message, int level, LogTime time) {
    const bool printed = std::any_of(printers.begin(), printers.end(), [&](const auto& printer) {
        return printer && printer(message, level, time);
    });
    if (!printed) {
        reportLoggingError("All printers in sequence failed to print log message");
    }
}

} // namespace agent::info
