#include "info/log/MultiPrinter.h"

#include <utility>

namespace agent::info {

MultiPrinter::MultiPrinter(std::vector<PrinterFunction> printers) : printers(std::move(printers)) {}

void MultiPrinter::print(const std::string& message, int level, LogTime time) {
    for (const PrinterFunction& printer : printers) {
        if (printer) {
            printer(message, level, time);
        }
    }
}

} // namespace agent::info
